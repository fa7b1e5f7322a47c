#include "source/file_request_adaptor.h"

#include <atomic>

#include "diag/log.h"
#include "source/http_file_request.h"
#include "source/local_file_request.h"

namespace {
std::atomic<FileRequestAdaptor::Factory> gTestFactory{nullptr};
}  // namespace

void FileRequestAdaptor::setFactoryForTesting(Factory factory) { gTestFactory = factory; }

FileRequestAdaptor::Kind FileRequestAdaptor::kindOf(std::string const& location) {
  // The length conditions are those of the devices' existing behaviour: the
  // "http://" test needs 7 characters, the "https://" test more than 7.
  if (location.size() >= 7 && location.find("http://") != std::string::npos) return KIND_HTTP;
  if (location.size() > 7 && location.find("https://") != std::string::npos) return KIND_HTTP;
  if (location.find('/') != std::string::npos) return KIND_LOCAL;
  return KIND_NONE;
}

FileRequest* FileRequestAdaptor::createFileRequest(std::string const& location) {
  if (Factory factory = gTestFactory.load()) {
    if (FileRequest* request = factory(location)) return request;
  }
  switch (kindOf(location)) {
    case KIND_HTTP:
      return new webs::HttpFileRequest(location);
    case KIND_LOCAL:
      return new LocalFileRequest(location);
    case KIND_NONE:
      break;
  }
  return nullptr;
}

void FileRequestAdaptor::releaseFileRequest(FileRequest* request) {
  if (request == nullptr) return;
  CV_LOG(1, "begin to release FileRequest");
  request->release();
  CV_LOG(1, "end to release FileRequest");
  delete request;
  CV_LOG(1, "Deleted request");
}
