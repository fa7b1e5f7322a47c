#include "http/http_options.h"

namespace webs {

namespace {

// The libcurl option of each HttpOption, in its order.
constexpr CURLoption kCurlOptions[kHttpOptionCount] = {
    CURLOPT_USERAGENT, CURLOPT_PROXY,   CURLOPT_COOKIE, CURLOPT_CAPATH,
    CURLOPT_CAINFO,    CURLOPT_SSLCERT, CURLOPT_SSLKEY, CURLOPT_SSLKEYTYPE,
};

}  // namespace

void HttpOptions::applyTo(CURL* curl) const {
  for (int i = 0; i < kHttpOptionCount; ++i) {
    if (!values_[i].empty()) curl_easy_setopt(curl, kCurlOptions[i], values_[i].c_str());
  }
}

}  // namespace webs
