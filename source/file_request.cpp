#include "source/file_request.h"

#include "diag/log.h"

FileRequest::FileRequest(std::string const& loc) : location(loc), out(nullptr) {
  CV_LOG(1, "FileRequest construction");
}

FileRequest::~FileRequest() = default;

void FileRequest::setOut(util::StreamSink* sink) { out = sink; }

void FileRequest::resetOut() { out = nullptr; }
