// JSONParser: the events of well-formed documents and the error state of
// malformed ones, fed whole and byte by byte.
#include "doc/json_parser.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/doc/event_log_reader.h"

namespace {

using webs::JSONParser;

struct Parsed {
  int result;
  int code;
  std::string events;
  long long offset;
};

Parsed parseWhole(const std::string& doc, int maxDepth = JSONParser::kDefaultMaxDepth) {
  EventLogReader sink;
  JSONParser parser(&sink, maxDepth);
  int result = parser.streamIn(doc.data(), static_cast<int>(doc.size()), 0);
  if (result == 0) result = parser.streamIn(nullptr, 0, 1);
  return {result, parser.getError().code, sink.log, parser.getErrorOffset()};
}

Parsed parseBytewise(const std::string& doc) {
  EventLogReader sink;
  JSONParser parser(&sink);
  int result = 0;
  for (size_t i = 0; i < doc.size() && result == 0; ++i) {
    result = parser.streamIn(&doc[i], 1, 0);
  }
  if (result == 0) result = parser.streamIn(nullptr, 0, 1);
  return {result, parser.getError().code, sink.log, parser.getErrorOffset()};
}

struct MalformedCase {
  const char* doc;
  int code;
};

TEST(JSONParserTest, MalformedDocumentsGiveTheirErrorWholeAndBytewise) {
  const MalformedCase cases[] = {
      // Truncated.
      {"{", JSONParser::kErrorTruncated},
      {"[1,2", JSONParser::kErrorTruncated},
      {"{\"a\":", JSONParser::kErrorTruncated},
      {"{\"a\"", JSONParser::kErrorTruncated},
      {"\"abc", JSONParser::kErrorTruncated},
      {"\"abc\\", JSONParser::kErrorTruncated},
      {"\"\\u12", JSONParser::kErrorTruncated},
      {"\"\\ud83d", JSONParser::kErrorTruncated},
      {"\"\xC3", JSONParser::kErrorTruncated},
      {"tru", JSONParser::kErrorTruncated},
      {"-", JSONParser::kErrorTruncated},
      {"1.", JSONParser::kErrorTruncated},
      {"1e", JSONParser::kErrorTruncated},
      {"1e+", JSONParser::kErrorTruncated},
      // Empty.
      {"", JSONParser::kErrorEmpty},
      {" \r\n\t ", JSONParser::kErrorEmpty},
      // Trailing commas and misplaced punctuation.
      {"[1,]", JSONParser::kErrorUnexpectedChar},
      {"{\"a\":1,}", JSONParser::kErrorUnexpectedChar},
      {"[,1]", JSONParser::kErrorUnexpectedChar},
      {"[1 2]", JSONParser::kErrorUnexpectedChar},
      {"{\"a\" 1}", JSONParser::kErrorUnexpectedChar},
      {"{1:2}", JSONParser::kErrorUnexpectedChar},
      {"{'a':1}", JSONParser::kErrorUnexpectedChar},
      {"[1}", JSONParser::kErrorUnexpectedChar},
      {"{\"a\":1]", JSONParser::kErrorUnexpectedChar},
      {"]", JSONParser::kErrorUnexpectedChar},
      {"+1", JSONParser::kErrorUnexpectedChar},
      {".5", JSONParser::kErrorUnexpectedChar},
      {"{\"a\":}", JSONParser::kErrorUnexpectedChar},
      // Bad escapes.
      {"\"\\x\"", JSONParser::kErrorBadEscape},
      {"\"\\U0041\"", JSONParser::kErrorBadEscape},
      {"\"\\u12G4\"", JSONParser::kErrorBadEscape},
      {"\"\\'\"", JSONParser::kErrorBadEscape},
      // Lone or misordered surrogates.
      {"\"\\ud800\"", JSONParser::kErrorBadSurrogate},
      {"\"\\udc00\"", JSONParser::kErrorBadSurrogate},
      {"\"\\udfff\\ud800\"", JSONParser::kErrorBadSurrogate},
      {"\"\\ud800\\u0041\"", JSONParser::kErrorBadSurrogate},
      {"\"\\ud800\\ud800\"", JSONParser::kErrorBadSurrogate},
      {"\"\\ud800x\"", JSONParser::kErrorBadSurrogate},
      {"\"\\ud800\\n\"", JSONParser::kErrorBadSurrogate},
      // Leading zeros and other bad numbers.
      {"01", JSONParser::kErrorBadNumber},
      {"-01", JSONParser::kErrorBadNumber},
      {"[00]", JSONParser::kErrorBadNumber},
      {"-a", JSONParser::kErrorBadNumber},
      {"1.e5", JSONParser::kErrorBadNumber},
      {"1e+x", JSONParser::kErrorBadNumber},
      {"--1", JSONParser::kErrorBadNumber},
      // Unescaped control characters.
      {"\"a\x01z\"", JSONParser::kErrorControlChar},
      {"\"a\nz\"", JSONParser::kErrorControlChar},
      {"\"a\tz\"", JSONParser::kErrorControlChar},
      {"{\"k\x1f\":1}", JSONParser::kErrorControlChar},
      // Invalid UTF-8: overlong, encoded surrogate, past U+10FFFF, stray
      // continuation, truncated sequence.
      {"\"\xC0\xAF\"", JSONParser::kErrorBadUtf8},
      {"\"\xE0\x80\xAF\"", JSONParser::kErrorBadUtf8},
      {"\"\xED\xA0\x80\"", JSONParser::kErrorBadUtf8},
      {"\"\xF4\x90\x80\x80\"", JSONParser::kErrorBadUtf8},
      {"\"\xF5\x80\x80\x80\"", JSONParser::kErrorBadUtf8},
      {"\"\x80\"", JSONParser::kErrorBadUtf8},
      {"\"\xE2\x82\"", JSONParser::kErrorBadUtf8},
      // Literals.
      {"nul", JSONParser::kErrorTruncated},
      {"truE", JSONParser::kErrorBadLiteral},
      {"nulll", JSONParser::kErrorTrailingData},
      {"True", JSONParser::kErrorUnexpectedChar},
      // More than one value.
      {"1 2", JSONParser::kErrorTrailingData},
      {"{} x", JSONParser::kErrorTrailingData},
      {"[]]", JSONParser::kErrorTrailingData},
  };
  for (const MalformedCase& c : cases) {
    SCOPED_TRACE(c.doc);
    Parsed whole = parseWhole(c.doc);
    EXPECT_EQ(whole.result, -1);
    EXPECT_EQ(whole.code, c.code);
    Parsed bytewise = parseBytewise(c.doc);
    EXPECT_EQ(bytewise.result, -1);
    EXPECT_EQ(bytewise.code, c.code);
    EXPECT_EQ(bytewise.offset, whole.offset);
    EXPECT_EQ(bytewise.events, whole.events);
  }
}

TEST(JSONParserTest, NumbersPassAsTheirTextWithTheLiteralFlag) {
  const char* numbers[] = {"0", "-0", "7", "-12", "0.5", "-0.25", "1e10", "1E+2", "2e-3",
                           "-1.5e-308", "123456789012345678901234567890", "0e0"};
  for (const char* number : numbers) {
    SCOPED_TRACE(number);
    Parsed whole = parseWhole(number);
    EXPECT_EQ(whole.result, 0);
    EXPECT_EQ(whole.events, std::string("( =") + number + " ) ");
    EXPECT_EQ(parseBytewise(std::string(" ") + number + "\n").events, whole.events);
  }
}

TEST(JSONParserTest, EveryValueKindGivesItsEvents) {
  struct Case {
    const char* doc;
    const char* events;
  } cases[] = {
      {"\"text\"", "( ='text ) "},
      {"\"\"", "( =' ) "},
      {"true", "( =true ) "},
      {"false", "( =false ) "},
      {"null", "( =null ) "},
      {"{}", "( ) "},
      {"[]", "[ ) "},
      {"{\"a\":1,\"b\":[true,{}],\"c\":\"x\"}",
       "( (a =1 ) [b ( =true ) ( ) ) (c ='x ) ) "},
      {" [ [ ] , { \"\" : null } ] ", "[ [ ) ( ( =null ) ) ) "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.doc);
    Parsed whole = parseWhole(c.doc);
    EXPECT_EQ(whole.result, 0);
    EXPECT_EQ(whole.events, c.events);
    EXPECT_EQ(parseBytewise(c.doc).events, c.events);
  }
}

TEST(JSONParserTest, EscapesDecodeToUtf8) {
  struct Case {
    const char* doc;
    std::string decoded;
  } cases[] = {
      {"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\"", "\"\\/\b\f\n\r\t"},
      {"\"\\u0041\\u00e9\\u00E9\"", "A\xC3\xA9\xC3\xA9"},
      {"\"\\u20ac\"", "\xE2\x82\xAC"},
      {"\"\\uffff\"", "\xEF\xBF\xBF"},
      {"\"\\ud834\\udd1e\"", "\xF0\x9D\x84\x9E"},
      {"\"\\uD83D\\uDE00!\"", "\xF0\x9F\x98\x80!"},
      {"\"\\udbff\\udfff\"", "\xF4\x8F\xBF\xBF"},
      {"\"caf\xC3\xA9 \xF0\x9F\x98\x80\"", "caf\xC3\xA9 \xF0\x9F\x98\x80"},
      {"\"a\\u0000b\"", std::string("a\0b", 3)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.doc);
    for (bool bytewise : {false, true}) {
      EventLogReader sink;
      JSONParser parser(&sink);
      std::string doc = c.doc;
      if (bytewise) {
        for (char ch : doc) ASSERT_EQ(parser.streamIn(&ch, 1, 0), 0);
      } else {
        ASSERT_EQ(parser.streamIn(doc.data(), static_cast<int>(doc.size()), 0), 0);
      }
      ASSERT_EQ(parser.streamIn(nullptr, 0, 1), 0);
      EXPECT_TRUE(parser.isFinished());
      EXPECT_EQ(parser.text(), c.decoded);
    }
  }
}

TEST(JSONParserTest, NestingIsLimited) {
  for (int depth : {1, 511, 512, 513, 100000}) {
    SCOPED_TRACE(depth);
    std::string doc = std::string(depth, '[') + std::string(depth, ']');
    Parsed whole = parseWhole(doc);
    if (depth <= JSONParser::kDefaultMaxDepth) {
      EXPECT_EQ(whole.result, 0);
    } else {
      EXPECT_EQ(whole.code, JSONParser::kErrorTooDeep);
      EXPECT_EQ(whole.offset, JSONParser::kDefaultMaxDepth);
    }
  }
  Parsed objects = parseWhole("{\"a\":{\"a\":{\"a\":1}}}", 2);
  EXPECT_EQ(objects.code, JSONParser::kErrorTooDeep);
  EXPECT_EQ(parseWhole("{\"a\":{\"a\":1}}", 2).result, 0);
}

TEST(JSONParserTest, LongTokensAreLimited) {
  EventLogReader sink;
  JSONParser parser(&sink, JSONParser::kDefaultMaxDepth, 8);
  std::string fits = "[\"12345678\",12345678,\"\\u00e9\\u00e9\\u00e9\\u00e9\"";
  EXPECT_EQ(parser.streamIn(fits.data(), static_cast<int>(fits.size()), 0), 0);
  EXPECT_EQ(parser.streamIn(",\"123456789\"]", 13, 1), -1);
  EXPECT_EQ(parser.getError().code, JSONParser::kErrorTooLong);
  parser.reset();
  EXPECT_EQ(parser.streamIn("-12345678", 9, 1), -1);
  EXPECT_EQ(parser.getError().code, JSONParser::kErrorTooLong);
}

TEST(JSONParserTest, ErrorIsStickyUntilReset) {
  EventLogReader sink;
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
}

TEST(JSONParserTest, DataAfterTheEndIsAnError) {
  EventLogReader sink;
  JSONParser parser(&sink);
  ASSERT_EQ(parser.streamIn("{}", 2, 1), 0);
  EXPECT_EQ(parser.streamIn(nullptr, 0, 1), 0);
  EXPECT_EQ(parser.streamIn(" ", 1, 0), -1);
  EXPECT_EQ(parser.getError().code, JSONParser::kErrorTrailingData);
}

TEST(JSONParserTest, ErrorReportsOffsetLineAndColumn) {
  EventLogReader sink;
  JSONParser parser(&sink);
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

TEST(JSONParserTest, ParsesWithoutASink) {
  JSONParser parser(nullptr);
  EXPECT_EQ(parser.streamIn("{\"a\":[1,2,{\"b\":null}]}", 22, 1), 0);
  EXPECT_TRUE(parser.isFinished());
}

}  // namespace
