// The exported HTTP option setters and information getters. Each checks its
// handle under the API lock, releases it and forwards to the handle's HTTP
// source; on any other source it logs and answers its not-HTTP value.
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

#include "api/api_call.h"
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

// What an HTTP call answers when the handle's source is not HTTP, or when
// an argument it needs is missing (`argsGiven` false): `log` at level 0,
// then `result`.
template <typename Result>
struct NotHttpAnswer {
  const char* log;
  Result result;
  bool argsGiven = true;
};

template <typename Call>
using HttpResult = std::invoke_result_t<Call&, webs::HttpFileRequest*>;

// `call(http)` with the HTTP source of `handle`; `noFile` when the handle
// is not open or anything is thrown, `notHttp` otherwise.
template <typename Call>
HttpResult<Call> withHttp(int handle, HttpResult<Call> noFile,
                          NotHttpAnswer<HttpResult<Call>> notHttp, Call&& call) noexcept {
  return api::withFile(handle, noFile, [&](webs::SmartFile* file) -> HttpResult<Call> {
    FileRequest* request = api::httpRequestOf(file);
    if (request == nullptr || !notHttp.argsGiven) {
      CV_LOG(0, notHttp.log);
      return notHttp.result;
    }
    return call(api::asHttp(request));
  });
}

enum class NullText { kNotHttp, kFailedFirst };

using TextSetter = void (webs::HttpFileRequest::*)(std::string const&);

// The text setters: `nullRule` says whether a null text is refused before
// the handle check (-4, "NULL POINT\n") or answered as not HTTP (-1).
int setText(int handle, const char* text, NullText nullRule, TextSetter setter) {
  if (text == nullptr && nullRule == NullText::kFailedFirst) {
    CV_LOG(0, "NULL POINT\n");
    return SMFR_FAILED;
  }
  return withHttp(handle, SMFR_FAILED, {kNotHttpOrNoSet, SMFR_NOT_HTTP, text != nullptr},
                  [&](webs::HttpFileRequest* http) -> int {
                    (http->*setter)(std::string(text));
                    return SMFR_OK;
                  });
}

char* keepText(const std::string& text) {
  char* copy = static_cast<char*>(std::calloc(text.size() + 1, 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text.data(), text.size());
  server_str = copy;
  return copy;
}

}  // namespace

extern "C" {

int x_smart_file_set_featureflag(int handle, int flags) {
  if (!api::handleInRange(handle)) return SMFR_FAILED;
  return api::noThrow(SMFR_FAILED, [&]() -> int {
    // Not withHttp: this call logs its misses at -4 and a missing file too.
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
  });
}

long long x_smart_file_http_get_speed(int handle) {
  return withHttp(handle, SMFR_FAILED, {kNotHttp, 0},
                  [](webs::HttpFileRequest* http) -> long long { return http->getSpeed(); });
}

int x_smart_file_http_set_speed(int handle, long long speed) {
  return withHttp(handle, SMFR_FAILED, {kNotHttp, SMFR_OK},
                  [&](webs::HttpFileRequest* http) -> int {
                    http->setSpeed(speed);
                    return SMFR_OK;
                  });
}

char* x_smart_file_http_get_content_type(int handle) {
  return withHttp(handle, nullptr, {kNotHttp, nullptr}, [](webs::HttpFileRequest* http) -> char* {
    std::string text = http->getContentType();
    CV_LOG(0, "Content type:%s", text.c_str());
    return keepText(text);
  });
}

char* x_smart_file_http_get_server_name(int handle) {
  return withHttp(handle, nullptr, {kNotHttp, nullptr}, [](webs::HttpFileRequest* http) -> char* {
    std::string text = http->getServerName();
    // Logged under the content-type line: log readers know it so.
    CV_LOG(0, "Content type:%s", text.c_str());
    return keepText(text);
  });
}

int x_smart_file_http_get_download_status(int handle) {
  // No download status applies to other sources: the failure code.
  return withHttp(handle, SMFR_FAILED, {kNotHttpOrNoSet, SMFR_FAILED},
                  [](webs::HttpFileRequest* http) -> int {
                    int status = http->getDownloadStatus();
                    CV_LOG(0, "download status : %d", status);
                    return status;
                  });
}

int x_smart_file_http_get_url_ip(int handle, char* ip) {
  return withHttp(handle, SMFR_FAILED, {kNotHttpOrNoSet, SMFR_NOT_HTTP, ip != nullptr},
                  [&](webs::HttpFileRequest* http) -> int { return http->getUrlIP(ip); });
}

int x_smart_file_http_get_header(int handle, char* buf, int size, int* length) {
  return withHttp(handle, SMFR_FAILED, {kNotHttpOrNoSet, SMFR_OK},
                  [&](webs::HttpFileRequest* http) -> int {
                    return http->getResponseHeader(buf, size, length);
                  });
}

int x_smart_file_http_set_userAgent(int handle, const char* text) {
  return setText(handle, text, NullText::kNotHttp, &webs::HttpFileRequest::setUserAgent);
}

int x_smart_file_http_set_proxy(int handle, const char* text) {
  return setText(handle, text, NullText::kNotHttp, &webs::HttpFileRequest::setProxy);
}

int x_smart_file_http_set_CAPath(int handle, const char* text) {
  return setText(handle, text, NullText::kNotHttp, &webs::HttpFileRequest::setCAPath);
}

int x_smart_file_http_set_CA(int handle, const char* text) {
  return setText(handle, text, NullText::kNotHttp, &webs::HttpFileRequest::setCA);
}

int x_smart_file_http_set_client_authert(int handle, const char* text) {
  return setText(handle, text, NullText::kFailedFirst,
                 &webs::HttpFileRequest::setClientAuthertication);
}

int x_smart_file_http_set_private_key(int handle, const char* text) {
  return setText(handle, text, NullText::kFailedFirst, &webs::HttpFileRequest::setPrivateKey);
}

int x_smart_file_http_set_key_type(int handle, const char* text) {
  return setText(handle, text, NullText::kFailedFirst, &webs::HttpFileRequest::setKeyType);
}

int x_smart_file_http_set_ip_resolve(int handle, const char* text) {
  return setText(handle, text, NullText::kFailedFirst, &webs::HttpFileRequest::setIpResolve);
}

int x_smart_file_http_set_cookie(int handle, const char* text) {
  return setText(handle, text, NullText::kNotHttp, &webs::HttpFileRequest::setCookie);
}

}  // extern "C"
