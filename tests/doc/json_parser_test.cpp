// JSONParser: the events of well-formed documents and the error state of
// malformed ones, fed whole and byte by byte; the same events and the same
// JSONReader tree whatever the cuts of a document.
#include "doc/json_parser.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "doc/json_reader.h"
#include "tests/doc/recording_reader.h"

namespace {

using testsupport::RecordingReader;
using webs::JSONParser;
using webs::JSONReader;

struct Parsed {
  int result;  // of the parser's last call
  int code;
  std::string events;
  long long offset;
  std::string tree;  // a JSONReader's print after the same feed
};

// Feeds `doc` to a parser and a JSONReader in pieces whose sizes come from
// `nextSize`, up to the parser's first error, then the end; both must agree
// on the error.
template <typename NextSize>
Parsed feed(const std::string& doc, NextSize nextSize,
            int maxDepth = JSONParser::kDefaultMaxDepth) {
  RecordingReader sink;
  JSONParser parser(&sink, maxDepth);
  JSONReader reader(maxDepth);
  int result = 0;
  for (size_t at = 0, size = 0; at < doc.size() && result == 0; at += size) {
    size = std::min(nextSize(), doc.size() - at);
    result = parser.streamIn(doc.data() + at, static_cast<int>(size), 0);
    reader.streamIn(doc.data() + at, static_cast<int>(size), 0);
  }
  if (result == 0) result = parser.streamIn(nullptr, 0, 1);
  reader.streamIn(nullptr, 0, 1);
  EXPECT_EQ(parser.getError().code, reader.getError().code);
  return {result, parser.getError().code, sink.log, parser.getErrorOffset(), reader.toJSON()};
}

// Feeds `doc` whole or byte by byte.
Parsed parse(const std::string& doc, bool bytewise = false,
             int maxDepth = JSONParser::kDefaultMaxDepth) {
  return feed(doc, [&] { return bytewise ? size_t{1} : doc.size(); }, maxDepth);
}

TEST(JSONParserTest, MalformedDocumentsGiveTheirErrorWholeAndBytewise) {
  const struct {
    int code;
    std::vector<std::string> docs;
  } groups[] = {
      {JSONParser::kErrorTruncated,
       {"{", "[1,2", "{\"a\":", "{\"a\"", "\"abc", "\"abc\\", "\"\\u12", "\"\\ud83d", "\"\xC3",
        "tru", "nul", "-", "1.", "1e", "1e+"}},
      {JSONParser::kErrorEmpty, {"", " \r\n\t "}},
      {JSONParser::kErrorUnexpectedChar,
       {"[1,]", "{\"a\":1,}", "[,1]", "[1 2]", "{\"a\" 1}", "{1:2}", "{'a':1}", "[1}",
        "{\"a\":1]", "]", "+1", ".5", "{\"a\":}", "True"}},
      {JSONParser::kErrorBadEscape, {"\"\\x\"", "\"\\U0041\"", "\"\\u12G4\"", "\"\\'\""}},
      {JSONParser::kErrorBadSurrogate,
       {"\"\\ud800\"", "\"\\udc00\"", "\"\\udfff\\ud800\"", "\"\\ud800\\u0041\"",
        "\"\\ud800\\ud800\"", "\"\\ud800x\"", "\"\\ud800\\n\""}},
      {JSONParser::kErrorBadNumber, {"01", "-01", "[00]", "-a", "1.e5", "1e+x", "--1"}},
      {JSONParser::kErrorControlChar, {"\"a\x01z\"", "\"a\nz\"", "\"a\tz\"", "{\"k\x1f\":1}"}},
      // Overlong, encoded surrogate, past U+10FFFF, stray continuation, cut.
      {JSONParser::kErrorBadUtf8,
       {"\"\xC0\xAF\"", "\"\xE0\x80\xAF\"", "\"\xED\xA0\x80\"", "\"\xF4\x90\x80\x80\"",
        "\"\xF5\x80\x80\x80\"", "\"\x80\"", "\"\xE2\x82\""}},
      {JSONParser::kErrorBadLiteral, {"truE"}},
      {JSONParser::kErrorTrailingData, {"nulll", "1 2", "{} x", "[]]"}},
  };
  for (const auto& group : groups) {
    for (const std::string& doc : group.docs) {
      SCOPED_TRACE(doc);
      Parsed whole = parse(doc), bytewise = parse(doc, true);
      for (const Parsed& p : {whole, bytewise}) {
        EXPECT_EQ(p.result, -1);
        EXPECT_EQ(p.code, group.code);
      }
      EXPECT_EQ(bytewise.offset, whole.offset);
      EXPECT_EQ(bytewise.events, whole.events);
    }
  }
}

TEST(JSONParserTest, EveryValueKindGivesItsDecodedEventsWholeAndBytewise) {
  std::vector<std::pair<std::string, std::string>> cases = {
      {"\"text\"", "( ='text ) "},
      {"\"\"", "( =' ) "},
      {"true", "( =true ) "},
      {"false", "( =false ) "},
      {"null", "( =null ) "},
      {"{}", "( ) "},
      {"[]", "[ ) "},
      {"{\"a\":1,\"b\":[true,{}],\"c\":\"x\"}", "( (a =1 ) [b ( =true ) ( ) ) (c ='x ) ) "},
      {" [ [ ] , { \"\" : null } ] ", "[ [ ) ( ( =null ) ) ) "},
      // Escapes and surrogate pairs decode to UTF-8 (\u0000 in the reader tests).
      {"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\"", "( ='\"\\/\b\f\n\r\t ) "},
      {"\"\\u0041\\u00e9\\u00E9\\u20ac\\uffff\"", "( ='A\xC3\xA9\xC3\xA9\xE2\x82\xAC\xEF\xBF\xBF ) "},
      {"\"\\ud834\\udd1e\\uD83D\\uDE00!\\udbff\\udfff\"",
       "( ='\xF0\x9D\x84\x9E\xF0\x9F\x98\x80!\xF4\x8F\xBF\xBF ) "},
      {"\"caf\xC3\xA9 \xF0\x9F\x98\x80\"", "( ='caf\xC3\xA9 \xF0\x9F\x98\x80 ) "},
  };
  // Numbers pass as their text with the literal flag.
  for (const char* number : {"0", "-0", "7", "-12", "0.5", "-0.25", "1e10", "1E+2", "2e-3",
                             "-1.5e-308", "123456789012345678901234567890", "0e0"}) {
    cases.push_back({number, std::string("( =") + number + " ) "});
  }
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    Parsed whole = parse(c.first);
    EXPECT_EQ(whole.result, 0);
    EXPECT_EQ(whole.events, c.second);
    EXPECT_EQ(parse(c.first + "\n", true).events, c.second);
  }
}

// The reader fed alongside has the same limit: it builds, prints back and
// tears down every level up to it.
TEST(JSONParserTest, NestingAndTokenLengthAreLimited) {
  for (int depth : {1, 511, 512, 513, 100000}) {
    SCOPED_TRACE(depth);
    const std::string doc = std::string(depth, '[') + std::string(depth, ']');
    Parsed whole = parse(doc);
    if (depth <= JSONParser::kDefaultMaxDepth) {
      EXPECT_EQ(whole.result, 0);
      EXPECT_EQ(whole.tree, doc);
    } else {
      EXPECT_EQ(whole.code, JSONParser::kErrorTooDeep);
      EXPECT_EQ(whole.offset, JSONParser::kDefaultMaxDepth);
    }
  }
  EXPECT_EQ(parse("{\"a\":{\"a\":{\"a\":1}}}", false, 2).code, JSONParser::kErrorTooDeep);
  EXPECT_EQ(parse("{\"a\":{\"a\":1}}", false, 2).result, 0);

  JSONParser parser(nullptr, JSONParser::kDefaultMaxDepth, 8);
  std::string fits = "[\"12345678\",12345678,\"\\u00e9\\u00e9\\u00e9\\u00e9\"";
  EXPECT_EQ(parser.streamIn(fits.data(), static_cast<int>(fits.size()), 0), 0);
  EXPECT_EQ(parser.streamIn(",\"123456789\"]", 13, 1), -1);
  EXPECT_EQ(parser.getError().code, JSONParser::kErrorTooLong);
  parser.reset();
  EXPECT_EQ(parser.streamIn("-12345678", 9, 1), -1);
  EXPECT_EQ(parser.getError().code, JSONParser::kErrorTooLong);
}

TEST(JSONParserTest, ErrorIsStickyUntilResetAndDataAfterTheEndIsOne) {
  RecordingReader sink;
  JSONParser parser(&sink);
  EXPECT_EQ(parser.streamIn("[1,", 3, 0), 0);
  EXPECT_EQ(parser.streamIn("x", 1, 0), -1);
  std::string before = sink.log;
  EXPECT_EQ(parser.streamIn("2]", 2, 1), -1);
  EXPECT_EQ(sink.log, before);
  EXPECT_TRUE(parser.hasError());
  EXPECT_FALSE(parser.isFinished());

  parser.reset();
  EXPECT_FALSE(parser.hasError());
  EXPECT_EQ(parser.getError().message, "");
  EXPECT_EQ(parser.streamIn("[2]", 3, 1), 0);
  EXPECT_TRUE(parser.isFinished());
  EXPECT_EQ(parser.streamIn(nullptr, 0, 1), 0);
  EXPECT_EQ(parser.streamIn(" ", 1, 0), -1);
  EXPECT_EQ(parser.getError().code, JSONParser::kErrorTrailingData);
}

TEST(JSONParserTest, ErrorReportsOffsetLineAndColumn) {
  JSONParser parser(nullptr);
  std::string doc = "{\n  \"a\": 1,\n  \"b\": tru3\n}";
  EXPECT_EQ(parser.streamIn(doc.data(), 12, 0), 0);
  EXPECT_EQ(parser.streamIn(doc.data() + 12, static_cast<int>(doc.size() - 12), 1), -1);
  EXPECT_EQ(parser.getError().code, JSONParser::kErrorBadLiteral);
  EXPECT_EQ(parser.getErrorOffset(), static_cast<long long>(doc.find('3')));
  EXPECT_EQ(parser.getErrorLine(), 3);
  EXPECT_EQ(parser.getErrorColumn(), 11);
  EXPECT_NE(parser.getError().message.find("line 3, column 11"), std::string::npos)
      << parser.getError().message;
}

// Strings with escapes, surrogate pairs and multi-byte UTF-8, numbers in
// every form, literals, empty and nested containers.
const char kMixedDocument[] =
    "{\"name\":\"caf\xC3\xA9 \\u00e9\\\"q\\\" \\ud83d\\ude00 \xF0\x9F\x98\x80\\n\",\r\n"
    " \"numbers\" : [0, -0, 12, -3.25, 6.02e23, 1E-9, 4e+2, 123456789012345678901],\n"
    " \"flags\":[true,false,null],\t\"empty\":{}, \"none\":[],\n"
    " \"deep\":[[[{\"k\\u0041y\":[\"\\t\\/\\\\\\b\\f\\r\"]}]]],\n"
    " \"\xE2\x82\xAC\":\"\\u20AC\", \"last\":-0.0e-0}\n";

// Every token kind and separator is cut somewhere by one of the 40 random
// cuttings; the bytewise feed cuts them all.
TEST(JSONChunkingTest, MixedDocumentGivesTheSameEventsAndTreeWholeBytewiseAndInRandomPieces) {
  const std::string doc = kMixedDocument;
  Parsed whole = parse(doc);
  ASSERT_EQ(whole.result, 0);
  EXPECT_NE(whole.tree.find("\"kAy\""), std::string::npos) << whole.tree;
  Parsed bytewise = parse(doc, true);
  EXPECT_EQ(bytewise.events, whole.events);
  EXPECT_EQ(bytewise.tree, whole.tree);
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    size_t limit = seed % 4 == 0 ? 64 : 7;
    Parsed random = feed(doc, [&]() { return 1 + rng() % limit; });
    EXPECT_EQ(random.events, whole.events);
    EXPECT_EQ(random.tree, whole.tree);
  }
}

}  // namespace
