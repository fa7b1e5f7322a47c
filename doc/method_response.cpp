#include "doc/method_response.h"

namespace webs {

MethodResponse::MethodResponse() : reader(nullptr), success(false) {}

MethodResponse::~MethodResponse() = default;

int MethodResponse::receive(void* data, int size, void* curl, int version) {
  reader->streamIn(static_cast<const char*>(data), size, 0);
  return size;
}

void MethodResponse::readyReceive() {
  reader->clear();
  errorCode = "";
  errorMsg = "";
  success = false;
  reader->readyRead();
}

void MethodResponse::finishReceive() {
  reader->streamIn(nullptr, 0, 1);
  processResult();
}

void MethodResponse::processResult() {}

void MethodResponse::initialize(TreeReader* newReader) {
  reader = newReader;
  if (reader) reader->initialize();
}

void MethodResponse::switchReader(TreeReader* newReader) { reader = newReader; }

void* MethodResponse::findResultStruct() { return nullptr; }

bool MethodResponse::isSuccess() { return success; }

std::string& MethodResponse::getErrorCode() { return errorCode; }

std::string& MethodResponse::getErrorMsg() { return errorMsg; }

}  // namespace webs
