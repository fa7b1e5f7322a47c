// Access from the C interface to a handle's HTTP source.
//
// The HTTP setters and getters act only when the handle's FileRequest answers
// getRequestType() 1; every other source takes the not-HTTP path.
#ifndef CORVANE_API_HTTP_SOURCE_H_
#define CORVANE_API_HTTP_SOURCE_H_

#include "file/smart_file.h"
#include "source/file_request.h"

#include "source/http_file_request.h"

namespace api {
inline webs::HttpFileRequest* asHttp(FileRequest* request) {
  return static_cast<webs::HttpFileRequest*>(request);
}
}  // namespace api

namespace api {

constexpr int kRequestTypeHttp = 1;

// The handle's source when it is an HTTP source, else null.
inline FileRequest* httpRequestOf(webs::SmartFile* file) {
  FileRequest* request = file->getRequest();
  if (request != nullptr && request->getRequestType() == kRequestTypeHttp) return request;
  return nullptr;
}

}  // namespace api

#endif  // CORVANE_API_HTTP_SOURCE_H_
