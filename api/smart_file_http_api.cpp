// The exported HTTP option setters and information getters. Each checks its
// handle under the API lock, releases it and forwards to the handle's HTTP
// source; on any other source it logs and answers its not-HTTP value.
#include <cstdlib>
#include <cstring>
#include <string>

#include "api/handle_table.h"
#include "api/http_source.h"
#include "corvane/smart_file.h"
#include "diag/log.h"

extern "C" {
// The text most recently returned by the content-type and server-name
// getters. Each call allocates a new text and the previous one is never
// freed: clients may keep every pointer they were given.
char* server_str = nullptr;
}

namespace {

constexpr char kNotHttp[] = "not http file";
constexpr char kNotHttpOrNoSet[] = "not http file or no set";

enum class NullText { kNotHttp, kFailedFirst };

// The text setters: `nullRule` says whether a null text is refused before
// the handle check (-4, "NULL POINT\n") or answered as not HTTP (-1).
template <typename Setter>
int setText(int handle, const char* text, NullText nullRule, Setter setter) {
  // No exception may cross the C interface: any failure is a plain failure.
  try {
    if (text == nullptr && nullRule == NullText::kFailedFirst) {
      CV_LOG(0, "NULL POINT\n");
      return SMFR_FAILED;
    }
    webs::SmartFile* file = api::lookup(handle);
    if (file == nullptr) return SMFR_FAILED;
    FileRequest* request = api::httpRequestOf(file);
    if (request == nullptr || text == nullptr) {
      CV_LOG(0, kNotHttpOrNoSet);
      return SMFR_NOT_HTTP;
    }
    setter(request, std::string(text));
    return SMFR_OK;
  } catch (...) {
    return SMFR_FAILED;
  }
}

char* keepText(const std::string& text) {
  char* copy = static_cast<char*>(std::calloc(text.size() + 1, 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text.data(), text.size());
  server_str = copy;
  return copy;
}

}  // namespace

#define CV_HTTP_SET(method) [](FileRequest* r, const std::string& t) { api::asHttp(r)->method(t); }

extern "C" {

int x_smart_file_set_featureflag(int handle, int flags) {
  try {
    if (!api::handleInRange(handle)) return SMFR_FAILED;
    webs::SmartFile* file = api::lookup(handle);
    if (file == nullptr) {
      CV_LOG(-4, "could not find handle:%d", handle);
      return SMFR_FAILED;
    }
    FileRequest* request = api::httpRequestOf(file);
    if (request == nullptr) {
      CV_LOG(-4, kNotHttp);
      return SMFR_OK;
    }
    api::asHttp(request)->setFeatureFlag(flags);
    return SMFR_OK;
  } catch (...) {
    return SMFR_FAILED;
  }
}

long long x_smart_file_http_get_speed(int handle) {
  try {
    webs::SmartFile* file = api::lookup(handle);
    if (file == nullptr) return SMFR_FAILED;
    FileRequest* request = api::httpRequestOf(file);
    if (request != nullptr) return api::asHttp(request)->getSpeed();
    (void)request;
    CV_LOG(0, kNotHttp);
    return 0;
  } catch (...) {
    return SMFR_FAILED;
  }
}

int x_smart_file_http_set_speed(int handle, long long speed) {
  try {
    webs::SmartFile* file = api::lookup(handle);
    if (file == nullptr) return SMFR_FAILED;
    FileRequest* request = api::httpRequestOf(file);
    if (request != nullptr) {
      api::asHttp(request)->setSpeed(speed);
      return SMFR_OK;
    }
    (void)request;
    CV_LOG(0, kNotHttp);
    return SMFR_OK;
  } catch (...) {
    return SMFR_FAILED;
  }
}

char* x_smart_file_http_get_content_type(int handle) {
  try {
    webs::SmartFile* file = api::lookup(handle);
    if (file == nullptr) return nullptr;
    FileRequest* request = api::httpRequestOf(file);
    if (request != nullptr) {
      std::string text = api::asHttp(request)->getContentType();
      CV_LOG(0, "Content type:%s", text.c_str());
      return keepText(text);
    }
    (void)request;
    CV_LOG(0, kNotHttp);
    return nullptr;
  } catch (...) {
    return nullptr;
  }
}

char* x_smart_file_http_get_server_name(int handle) {
  try {
    webs::SmartFile* file = api::lookup(handle);
    if (file == nullptr) return nullptr;
    FileRequest* request = api::httpRequestOf(file);
    if (request != nullptr) {
      std::string text = api::asHttp(request)->getServerName();
      // Logged under the content-type line: log readers know it so.
      CV_LOG(0, "Content type:%s", text.c_str());
      return keepText(text);
    }
    (void)request;
    CV_LOG(0, kNotHttp);
    return nullptr;
  } catch (...) {
    return nullptr;
  }
}

int x_smart_file_http_get_download_status(int handle) {
  try {
    webs::SmartFile* file = api::lookup(handle);
    if (file == nullptr) return SMFR_FAILED;
    FileRequest* request = api::httpRequestOf(file);
    if (request != nullptr) {
      int status = api::asHttp(request)->getDownloadStatus();
      CV_LOG(0, "download status : %d", status);
      return status;
    }
    (void)request;
    CV_LOG(0, kNotHttpOrNoSet);
    // No download status applies to other sources: the failure code.
    return SMFR_FAILED;
  } catch (...) {
    return SMFR_FAILED;
  }
}

int x_smart_file_http_get_url_ip(int handle, char* ip) {
  try {
    webs::SmartFile* file = api::lookup(handle);
    if (file == nullptr) return SMFR_FAILED;
    FileRequest* request = api::httpRequestOf(file);
    if (request != nullptr && ip != nullptr) return api::asHttp(request)->getUrlIP(ip);
    (void)request;
    CV_LOG(0, kNotHttpOrNoSet);
    return SMFR_NOT_HTTP;
  } catch (...) {
    return SMFR_FAILED;
  }
}

int x_smart_file_http_get_header(int handle, char* buf, int size, int* length) {
  try {
    webs::SmartFile* file = api::lookup(handle);
    if (file == nullptr) return SMFR_FAILED;
    FileRequest* request = api::httpRequestOf(file);
    if (request != nullptr) return api::asHttp(request)->getResponseHeader(buf, size, length);
    (void)request;
    CV_LOG(0, kNotHttpOrNoSet);
    return SMFR_OK;
  } catch (...) {
    return SMFR_FAILED;
  }
}

int x_smart_file_http_set_userAgent(int handle, const char* text) {
  return setText(handle, text, NullText::kNotHttp, CV_HTTP_SET(setUserAgent));
}

int x_smart_file_http_set_proxy(int handle, const char* text) {
  return setText(handle, text, NullText::kNotHttp, CV_HTTP_SET(setProxy));
}

int x_smart_file_http_set_CAPath(int handle, const char* text) {
  return setText(handle, text, NullText::kNotHttp, CV_HTTP_SET(setCAPath));
}

int x_smart_file_http_set_CA(int handle, const char* text) {
  return setText(handle, text, NullText::kNotHttp, CV_HTTP_SET(setCA));
}

int x_smart_file_http_set_client_authert(int handle, const char* text) {
  return setText(handle, text, NullText::kFailedFirst, CV_HTTP_SET(setClientAuthertication));
}

int x_smart_file_http_set_private_key(int handle, const char* text) {
  return setText(handle, text, NullText::kFailedFirst, CV_HTTP_SET(setPrivateKey));
}

int x_smart_file_http_set_key_type(int handle, const char* text) {
  return setText(handle, text, NullText::kFailedFirst, CV_HTTP_SET(setKeyType));
}

int x_smart_file_http_set_ip_resolve(int handle, const char* text) {
  return setText(handle, text, NullText::kFailedFirst, CV_HTTP_SET(setIpResolve));
}

int x_smart_file_http_set_cookie(int handle, const char* text) {
  return setText(handle, text, NullText::kNotHttp, CV_HTTP_SET(setCookie));
}

}  // extern "C"
