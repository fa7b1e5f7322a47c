// The same JSON document cut into pieces anywhere gives the same events and
// the same tree as the document fed whole.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "doc/json_parser.h"
#include "doc/json_reader.h"
#include "tests/doc/event_log_reader.h"

namespace {

using webs::JSONParser;
using webs::JSONReader;

// Strings with escapes, surrogate pairs and multi-byte UTF-8, numbers in
// every form, literals, empty and nested containers.
const char kMixedDocument[] =
    "{\"name\":\"caf\xC3\xA9 \\u00e9\\\"q\\\" \\ud83d\\ude00 \xF0\x9F\x98\x80\\n\",\r\n"
    " \"numbers\" : [0, -0, 12, -3.25, 6.02e23, 1E-9, 4e+2, 123456789012345678901],\n"
    " \"flags\":[true,false,null],\t\"empty\":{}, \"none\":[],\n"
    " \"deep\":[[[{\"k\\u0041y\":[\"\\t\\/\\\\\\b\\f\\r\"]}]]],\n"
    " \"\xE2\x82\xAC\":\"\\u20AC\", \"last\":-0.0e-0}\n";

// A random document of the given size class, from a seed.
std::string generateDocument(unsigned seed) {
  std::mt19937 rng(seed);
  std::string out;
  std::vector<char> open;
  int values = 0;
  auto scalar = [&]() {
    switch (rng() % 6) {
      case 0: out += "\"s" + std::to_string(rng() % 1000) + "\\u00e9\\ud83d\\ude00\\n\""; break;
      case 1: out += std::to_string(static_cast<int>(rng() % 200000) - 100000); break;
      case 2: out += "-1.5e-" + std::to_string(rng() % 30); break;
      case 3: out += "true"; break;
      case 4: out += "null"; break;
      default: out += "\"\xE6\x97\xA5\xE6\x9C\xAC\""; break;
    }
  };
  out += '{';
  open.push_back('}');
  bool first = true;
  while (!open.empty()) {
    bool inObject = open.back() == '}';
    unsigned pick = rng() % 10;
    if (values > 300 || (pick < 2 && !first) || open.size() > 20) {
      out += open.back();
      open.pop_back();
      first = false;
      continue;
    }
    if (!first) out += rng() % 2 ? "," : " ,\n ";
    first = false;
    if (inObject) out += "\"k" + std::to_string(values) + "\":";
    ++values;
    if (pick < 4) {
      out += pick % 2 ? '[' : '{';
      open.push_back(pick % 2 ? ']' : '}');
      first = true;
    } else {
      scalar();
    }
  }
  return out;
}

struct Result {
  std::string events;
  std::string tree;
  int code;
};

// Feeds `doc` in pieces whose sizes come from `nextSize`.
template <typename NextSize>
Result feed(const std::string& doc, NextSize nextSize) {
  EventLogReader sink;
  JSONParser parser(&sink);
  JSONReader reader;
  size_t at = 0;
  while (at < doc.size()) {
    size_t size = std::min(nextSize(), doc.size() - at);
    parser.streamIn(doc.data() + at, static_cast<int>(size), 0);
    reader.streamIn(doc.data() + at, static_cast<int>(size), 0);
    at += size;
  }
  parser.streamIn(nullptr, 0, 1);
  reader.streamIn(nullptr, 0, 1);
  EXPECT_EQ(parser.getError().code, reader.getError().code);
  return {sink.log, reader.toJSON(), parser.getError().code};
}

void expectSameWhateverTheCuts(const std::string& doc) {
  Result whole = feed(doc, [&]() { return doc.size(); });
  ASSERT_EQ(whole.code, 0);
  Result bytewise = feed(doc, []() { return size_t{1}; });
  EXPECT_EQ(bytewise.events, whole.events);
  EXPECT_EQ(bytewise.tree, whole.tree);
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    size_t limit = seed % 4 == 0 ? 64 : 7;
    Result random = feed(doc, [&]() { return 1 + rng() % limit; });
    EXPECT_EQ(random.events, whole.events);
    EXPECT_EQ(random.tree, whole.tree);
  }
}

TEST(JSONChunkingTest, MixedDocumentGivesTheSameTreeWholeBytewiseAndInRandomPieces) {
  std::string doc = kMixedDocument;
  expectSameWhateverTheCuts(doc);
  Result whole = feed(doc, [&]() { return doc.size(); });
  EXPECT_NE(whole.tree.find("\"kAy\""), std::string::npos) << whole.tree;
}

TEST(JSONChunkingTest, GeneratedDocumentsGiveTheSameTreeWhateverTheCuts) {
  for (unsigned seed = 100; seed < 106; ++seed) {
    SCOPED_TRACE(seed);
    expectSameWhateverTheCuts(generateDocument(seed));
  }
}

TEST(JSONChunkingTest, EveryTwoPieceCutOfAMalformedDocumentGivesTheSameError) {
  const std::string docs[] = {"{\"a\":[1,2,]}", "[\"\\ud800\\u0041\"]", "{\"a\":01}",
                              "[\"x\xC0\xAF\"]", "{\"a\":tru}"};
  for (const std::string& doc : docs) {
    SCOPED_TRACE(doc);
    Result whole = feed(doc, [&]() { return doc.size(); });
    ASSERT_NE(whole.code, 0);
    for (size_t cut = 1; cut < doc.size(); ++cut) {
      bool firstPiece = true;
      Result split = feed(doc, [&]() {
        size_t size = firstPiece ? cut : doc.size();
        firstPiece = false;
        return size;
      });
      EXPECT_EQ(split.code, whole.code) << "cut at " << cut;
      EXPECT_EQ(split.events, whole.events) << "cut at " << cut;
    }
  }
}

}  // namespace
