// A TreeReader that records the node events it receives as one line of
// text, for comparing event sequences between feeds.
#ifndef CORVANE_TESTS_DOC_EVENT_LOG_READER_H_
#define CORVANE_TESTS_DOC_EVENT_LOG_READER_H_

#include <string>
#include <vector>

#include "doc/tree_reader.h"

class EventLogReader : public webs::TreeReader {
 public:
  int streamIn(const char*, int, int) override { return 0; }
  void initialize() override {}
  void clear() override { log.clear(); }
  void readNodeBegin(const char* name, bool flag) override {
    log += flag ? "[" : "(";
    log += name;
    log += ' ';
  }
  void readNodeEnd(const char*) override { log += ") "; }
  void readNodeValue(const char* text, bool flag) override {
    log += flag ? "=" : "='";
    log += text;
    log += ' ';
  }
  void readyRead() override {}
  std::vector<unsigned char>* getRawData(const std::string&) override { return nullptr; }

  std::string log;
};

#endif  // CORVANE_TESTS_DOC_EVENT_LOG_READER_H_
