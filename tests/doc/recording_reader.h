// A TreeReader that records every call made into it, in order, as one line
// of text: node events as "(name ", "[name " (an array), ") ", "=text " (a
// literal) and "='text ", the other calls by name.
#ifndef CORVANE_TESTS_DOC_RECORDING_READER_H_
#define CORVANE_TESTS_DOC_RECORDING_READER_H_

#include <string>
#include <vector>

#include "doc/tree_reader.h"

namespace testsupport {

class RecordingReader : public webs::TreeReader {
 public:
  int streamIn(const char* data, int size, int isLast) override {
    log += "streamIn(" + (data ? std::string(data, size) : std::string("null")) + "," +
           std::to_string(size) + "," + std::to_string(isLast) + ") ";
    return 0;
  }
  void initialize() override { log += "initialize "; }
  void clear() override { log += "clear "; }
  void readNodeBegin(const char* name, bool isArray) override {
    log += std::string(isArray ? "[" : "(") + name + " ";
  }
  void readNodeEnd(const char*) override { log += ") "; }
  void readNodeValue(const char* text, bool literal) override {
    log += std::string(literal ? "=" : "='") + text + " ";
  }
  void readyRead() override { log += "readyRead "; }
  std::vector<unsigned char>* getRawData(const std::string&) override { return nullptr; }

  std::string log;
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_DOC_RECORDING_READER_H_
