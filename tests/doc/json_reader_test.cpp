// JSONReader: the tree built from JSON documents, its lookups and printing.
#include "doc/json_reader.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using webs::JSONParser;
using webs::JSONReader;
using webs::TreeNode;

int parse(JSONReader& reader, const std::string& doc) {
  reader.clear();
  int result = reader.streamIn(doc.data(), static_cast<int>(doc.size()), 0);
  return result == 0 ? reader.streamIn(nullptr, 0, 1) : result;
}

std::string valueAt(const TreeNode& root, const std::string& path) {
  const std::string* value = root.lookupValue(path);
  return value ? *value : "<none>";
}

// The examples of RFC 8259, section 13 (the array one on fewer lines).
const char kRfcObject[] = R"({
      "Image": {
          "Width":  800,
          "Height": 600,
          "Title":  "View from 15th Floor",
          "Thumbnail": {
              "Url":    "http://www.example.com/image/481989943",
              "Height": 125,
              "Width":  100
          },
          "Animated" : false,
          "IDs": [116, 943, 234, 38793]
        }
    })";

const char kRfcArray[] =
    "[{\"precision\": \"zip\", \"Latitude\": 37.7668, \"Longitude\": -122.3959,"
    "  \"Address\": \"\", \"City\": \"SAN FRANCISCO\", \"State\": \"CA\", \"Zip\": \"94107\","
    "  \"Country\": \"US\"},\n"
    " {\"precision\": \"zip\", \"Latitude\": 37.371991, \"Longitude\": -122.026020,"
    "  \"Address\": \"\", \"City\": \"SUNNYVALE\", \"State\": \"CA\", \"Zip\": \"94085\","
    "  \"Country\": \"US\"}]";

TEST(JSONReaderTest, RfcObjectExample) {
  JSONReader reader;
  ASSERT_EQ(parse(reader, kRfcObject), 0);
  EXPECT_TRUE(reader.isComplete());
  EXPECT_EQ(valueAt(reader, "Image/Thumbnail/Url"), "http://www.example.com/image/481989943");
  EXPECT_EQ(valueAt(reader, "Image/IDs/item[3]"), "38793");
  EXPECT_EQ(valueAt(reader, "Image/IDs/[2]"), "234");
  EXPECT_EQ(reader.lookup("Image/Thumbnail")->getParent(), reader.lookup("Image"));
  EXPECT_EQ(reader.lookup("Image")->getParent(), &reader);
  // Literal flags and arrays show in the print: numbers and false unquoted.
  EXPECT_EQ(reader.toJSON(),
            "{\"Image\":{\"Width\":800,\"Height\":600,\"Title\":\"View from 15th Floor\","
            "\"Thumbnail\":{\"Url\":\"http://www.example.com/image/481989943\",\"Height\":125,"
            "\"Width\":100},\"Animated\":false,\"IDs\":[116,943,234,38793]}}");
}

TEST(JSONReaderTest, RfcArrayExampleScalarDocumentsAndRawData) {
  JSONReader reader;
  ASSERT_EQ(parse(reader, kRfcArray), 0);
  EXPECT_TRUE(reader.isArray());
  EXPECT_EQ(reader.getChildCount(), 2);
  EXPECT_EQ(valueAt(reader, "item[1]/City"), "SUNNYVALE");
  EXPECT_EQ(valueAt(reader, "item/Longitude"), "-122.3959");
  EXPECT_EQ(valueAt(reader, "item[1]/Longitude"), "-122.026020");
  EXPECT_EQ(valueAt(reader, "item/Address"), "");

  struct Scalar {
    const char* doc;
    const char* value;
    bool literal;
  } scalars[] = {{"\"Hello world!\"", "Hello world!", false}, {"42", "42", true},
                 {"true", "true", true}, {" null ", "null", true}};
  for (const Scalar& s : scalars) {
    SCOPED_TRACE(s.doc);
    ASSERT_EQ(parse(reader, s.doc), 0);
    EXPECT_EQ(reader.getChildCount(), 0);
    EXPECT_FALSE(reader.isArray());
    EXPECT_EQ(valueAt(reader, ""), s.value);
    EXPECT_EQ(reader.isLiteral(), s.literal);
  }
  std::vector<unsigned char>* raw = reader.getRawData("{\"q\":1}");
  ASSERT_NE(raw, nullptr);
  EXPECT_EQ(std::string(raw->begin(), raw->end()), "{\"q\":1}");
}

// The print is compact JSON that parses back to itself: escapes only where
// JSON needs them (NUL bytes in keys and values too), other characters as
// UTF-8, every key kept in order, duplicates and the empty one included.
TEST(JSONReaderTest, PrintsCompactJSONThatParsesBackToItself) {
  const struct {
    const char* doc;
    const char* printed;  // null: the document itself
  } cases[] = {
      {"{\"a\":[],\"b\":{},\"c\":[[],[{}]],\"d\":\"\",\"e\":[\"\\u0001\\u001f\\\"\\\\/\\n\"]}",
       nullptr},
      {"[1,-2.5e-3,true,false,null,\"caf\xC3\xA9\",\"\\ud83d\\ude00\"]",
       "[1,-2.5e-3,true,false,null,\"caf\xC3\xA9\",\"\xF0\x9F\x98\x80\"]"},
      {"{\"dup\":1,\"dup\":2,\"\":\"empty key\"}", nullptr},
      {" \"just text\" ", "\"just text\""},
      {"{\"a\\u0000b\":\"x\\u0000y\"}", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.doc);
    const std::string printed = c.printed ? c.printed : c.doc;
    JSONReader reader;
    ASSERT_EQ(parse(reader, c.doc), 0);
    EXPECT_EQ(reader.toJSON(), printed);
    ASSERT_EQ(parse(reader, printed), 0) << reader.getError().message;
    EXPECT_EQ(reader.toJSON(), printed);
  }
  JSONReader reader;
  ASSERT_EQ(parse(reader, "{\"a\\u0000b\":\"x\\u0000y\"}"), 0);
  ASSERT_NE(reader.getFirstChild(), nullptr);
  EXPECT_EQ(reader.getFirstChild()->getName(), std::string("a\0b", 3));
  EXPECT_EQ(reader.getFirstChild()->getValue(), std::string("x\0y", 3));
}

TEST(JSONReaderTest, ClearForgetsThePreviousDocumentOrErrorAndReusesRecords) {
  JSONReader reader;
  std::string doc = "{\"list\":[";
  for (int i = 0; i < 500; ++i) doc += (i ? ",{\"n\":" : "{\"n\":") + std::to_string(i) + "}";
  doc += "]}";
  ASSERT_EQ(parse(reader, doc), 0);
  size_t records = reader.getPoolNodeCount();
  EXPECT_GE(records, 1001u);
  for (int round = 0; round < 5; ++round) {
    ASSERT_EQ(parse(reader, doc), 0);
    EXPECT_EQ(reader.getPoolNodeCount(), records);
  }
  EXPECT_EQ(valueAt(reader, "list/item[499]/n"), "499");
  EXPECT_EQ(parse(reader, "{\"a\":[1,2,]}"), -1);
  EXPECT_TRUE(reader.hasError());
  EXPECT_FALSE(reader.isComplete());
  EXPECT_EQ(reader.getError().code, JSONParser::kErrorUnexpectedChar);
  EXPECT_FALSE(reader.getError().message.empty());
  ASSERT_EQ(parse(reader, "[7]"), 0);
  EXPECT_FALSE(reader.hasError());
  EXPECT_EQ(reader.lookup("list"), nullptr);
  EXPECT_EQ(reader.toJSON(), "[7]");
}

}  // namespace
