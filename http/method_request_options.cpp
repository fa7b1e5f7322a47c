// MethodRequest: the easy handle's set-up, the stored options and the
// socket the handle connects through.

// The progress callback below is the older double-based one on purpose: its
// once-a-second calls during silence drive the stall checks.
#define CURL_DISABLE_DEPRECATION 1

#include <arpa/inet.h>
#include <errno.h>
#include <sys/socket.h>

#include <cstring>
#include <mutex>

#include "diag/log.h"
#include "http/method_request.h"
#include "thread/sync_guard.h"

namespace webs {

namespace {

constexpr char kDefaultUserAgent[] = "curl/7.19.5";
constexpr char kNoProxyHost[] = "127.0.0.1";
constexpr char kPragmaNoCache[] = "Pragma: no-cache";
constexpr char kIcyStatus[] = "ICY 200 OK";

// One list shared by every request and never freed: handles keep pointing
// at it for their whole life.
struct curl_slist* sharedNoCacheList() {
  static std::once_flag once;
  static struct curl_slist* list = nullptr;
  std::call_once(once, [] { list = curl_slist_append(nullptr, kPragmaNoCache); });
  return list;
}

void logIpType(int type) {
  if (type == CURL_IPRESOLVE_V4) {
    CV_LOG(0, "set IPv4");
  } else if (type == CURL_IPRESOLVE_V6) {
    CV_LOG(0, "set IPv6");
  } else {
    CV_LOG(0, "set WHATEVER");
  }
}

}  // namespace

void MethodRequest::InitCurl(char const* url) {
  if (curl != nullptr) curl_easy_cleanup(curl);
  if (aliases != nullptr) {
    curl_slist_free_all(aliases);
    aliases = nullptr;
  }
  curl = curl_easy_init();
  if (curl == nullptr) return;
  if (url != nullptr) {
    curl_easy_setopt(curl, CURLOPT_URL, url);
  } else {
    CV_LOG(0, "url is NULL");
  }
  curl_easy_setopt(curl, CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &MethodRequest::response);
  curl_easy_setopt(curl, CURLOPT_PROGRESSFUNCTION, &MethodRequest::progressCallback);
  curl_easy_setopt(curl, CURLOPT_PROGRESSDATA, this);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, &MethodRequest::SmartSocket);
  curl_easy_setopt(curl, CURLOPT_OPENSOCKETDATA, this);
  curl_easy_setopt(curl, CURLOPT_NOPROXY, kNoProxyHost);
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
  rangeGet.store(false, std::memory_order_relaxed);
  curl_easy_setopt(curl, CURLOPT_USERAGENT, kDefaultUserAgent);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT,
                   featureFlag.load(std::memory_order_relaxed) == 1 ? 6L : 10L);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &MethodRequest::headerCallback);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kBufferSize);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, sharedNoCacheList());
  aliases = curl_slist_append(aliases, kIcyStatus);
  curl_easy_setopt(curl, CURLOPT_HTTP200ALIASES, aliases);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
}

void MethodRequest::applyStoredOptions() {
  // Copied under the lock, applied without it: setters may run on other
  // threads, libcurl is only touched here on the transfer's thread.
  HttpOptions stored;
  int ip;
  {
    util::SyncGuard guard(*this);
    stored = options;
    ip = ipType;
  }
  curl_easy_setopt(curl, CURLOPT_IPRESOLVE, static_cast<long>(ip));
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT,
                   featureFlag.load(std::memory_order_relaxed) == 1 ? 6L : 10L);
  stored.applyTo(curl);
}

// Values take effect at the next executeGet; an empty string keeps the
// handle's current setting.
void MethodRequest::setOption(HttpOption which, std::string const& value) {
  util::SyncGuard guard(*this);
  options.set(which, value);
}

void MethodRequest::setUserAgent(std::string const& v) { setOption(HttpOption::kUserAgent, v); }
void MethodRequest::setProxy(std::string const& v) { setOption(HttpOption::kProxy, v); }
void MethodRequest::setCookie(std::string const& v) { setOption(HttpOption::kCookie, v); }
void MethodRequest::setCAPath(std::string const& v) { setOption(HttpOption::kCAPath, v); }
void MethodRequest::setCA(std::string const& v) { setOption(HttpOption::kCA, v); }
void MethodRequest::setClientAuthertication(std::string const& v) {
  setOption(HttpOption::kClientCert, v);
}
void MethodRequest::setPrivateKey(std::string const& v) { setOption(HttpOption::kPrivateKey, v); }
void MethodRequest::setKeyType(std::string const& v) { setOption(HttpOption::kKeyType, v); }

void MethodRequest::setMethodFeatureFlag(int flag) {
  CV_LOG(-4, "handle:%p, MethodRequest set flag :%d", static_cast<void*>(this), flag);
  featureFlag.store(flag, std::memory_order_relaxed);
}

void MethodRequest::setIpResolve(std::string const& type) {
  int chosen;
  if (type == "IPv4") {
    chosen = CURL_IPRESOLVE_V4;
  } else if (type == "IPv6") {
    chosen = CURL_IPRESOLVE_V6;
  } else if (type == "whatever") {
    chosen = CURL_IPRESOLVE_WHATEVER;
  } else {
    CV_LOG(0, "IpType is invalid (%s)", type.c_str());
    return;
  }
  logIpType(chosen);
  util::SyncGuard guard(*this);
  ipType = chosen;
}

void MethodRequest::changeIptype(bool swap) {
  util::SyncGuard guard(*this);
  bool v4 = (!swap && ipType == CURL_IPRESOLVE_V4) || (swap && ipType != CURL_IPRESOLVE_V4);
  ipType = v4 ? CURL_IPRESOLVE_V4 : CURL_IPRESOLVE_V6;
  logIpType(ipType);
}

int MethodRequest::getIpType() {
  util::SyncGuard guard(*this);
  return ipType;
}

int MethodRequest::getUrlIP(char* ip_buf) {
  if (ip_buf == nullptr) {
    CV_LOG(-4, "Error, input ip_buf shouldn't be NULL");
    return -1;
  }
  util::SyncGuard guard(*this);
  // Only the text and its terminator: callers size the buffer for the
  // address they expect (16 bytes hold any IPv4 text).
  std::memcpy(ip_buf, peerAddress.c_str(), peerAddress.size() + 1);
  CV_LOG(2, "URL IP: %s\n", ip_buf);
  return 0;
}

curl_socket_t MethodRequest::SmartSocket(void* request, curlsocktype purpose,
                                         struct curl_sockaddr* address) {
  auto* self = static_cast<MethodRequest*>(request);
  curl_socket_t fd = socket(address->family, address->socktype, address->protocol);
  if (fd == CURL_SOCKET_BAD) {
    self->osErrno.store(errno, std::memory_order_relaxed);
    return CURL_SOCKET_BAD;
  }
  // The address the handle is about to connect to is what getUrlIP reports.
  char text[INET6_ADDRSTRLEN] = {0};
  if (address->family == AF_INET) {
    auto* in = reinterpret_cast<struct sockaddr_in*>(&address->addr);
    inet_ntop(AF_INET, &in->sin_addr, text, sizeof(text));
  } else if (address->family == AF_INET6) {
    auto* in6 = reinterpret_cast<struct sockaddr_in6*>(&address->addr);
    inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof(text));
  }
  util::SyncGuard guard(*self);
  self->peerAddress = text;
  return fd;
}

}  // namespace webs
