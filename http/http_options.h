// webs::HttpOptions: the string options a transfer sets on its libcurl easy
// handle, one slot for each option setter of MethodRequest and
// HttpFileRequest (HttpOption names the setter).
//
// A plain value with no lock: its owner guards it (a MethodRequest with its
// own lock) and copies it out before applyTo, so libcurl is never called
// while that lock is held.
#ifndef CORVANE_HTTP_HTTP_OPTIONS_H_
#define CORVANE_HTTP_HTTP_OPTIONS_H_

#include <string>

#include <curl/curl.h>

namespace webs {

enum class HttpOption {
  kUserAgent,   // setUserAgent
  kProxy,       // setProxy
  kCookie,      // setCookie
  kCAPath,      // setCAPath
  kCA,          // setCA
  kClientCert,  // setClientAuthertication
  kPrivateKey,  // setPrivateKey
  kKeyType,     // setKeyType
};
constexpr int kHttpOptionCount = 8;

class HttpOptions {
 public:
  void set(HttpOption which, std::string const& value) { values_[static_cast<int>(which)] = value; }

  // Sets each option with a value on `curl`, in HttpOption order; an empty
  // value keeps the handle's current setting. libcurl copies the texts.
  void applyTo(CURL* curl) const;

 private:
  std::string values_[kHttpOptionCount];
};

}  // namespace webs

#endif  // CORVANE_HTTP_HTTP_OPTIONS_H_
