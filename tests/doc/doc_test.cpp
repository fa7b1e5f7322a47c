// Documents: the JSON parser's events and errors whatever the cuts of a
// document, the trees JSONReader and XMLReader build, TreeNode's lookups,
// printing and record reuse, and MethodResponse's calls into its reader.
#include <expat.h>

#include <random>

#include "doc/json_parser.h"
#include "doc/json_reader.h"
#include "doc/method_response.h"
#include "doc/tree_node.h"
#include "doc/xml_reader.h"
#include "support/support.h"

namespace testsupport {
namespace {

using webs::JSONParser;
using webs::JSONReader;
using webs::TreeNode;
using webs::XMLReader;

// Records the reader calls as text.
class Recorder : public webs::TreeReader {
 public:
  int streamIn(const char* data, int size, int isLast) override {
    log += "in(" + (data ? std::string(data, size) : "null") + "," + std::to_string(isLast) + ") ";
    return 0;
  }
  void initialize() override { log += "init "; }
  void clear() override { log += "clear "; }
  void readNodeBegin(const char* name, bool isArray) override { log += std::string(isArray ? "[" : "(") + name + " "; }
  void readNodeEnd(const char*) override { log += ") "; }
  void readNodeValue(const char* text, bool literal) override { log += std::string(literal ? "=" : "='") + text + " "; }
  void readyRead() override { log += "ready "; }
  std::vector<unsigned char>* getRawData(const std::string&) override { return nullptr; }
  std::string log;
};

struct Parsed {
  int result, code;
  std::string events;
  long long offset;
  std::string tree;  // a JSONReader's print after the same feed
};

// Feeds a parser and a JSONReader in pieces sized by `next` up to the
// first error, then the end; both must agree on the error.
template <typename Next>
Parsed feed(const std::string& doc, Next next, int maxDepth = JSONParser::kDefaultMaxDepth) {
  Recorder events;
  JSONParser parser(&events, maxDepth);
  JSONReader reader(maxDepth);
  int result = 0;
  for (size_t at = 0, size = 0; at < doc.size() && result == 0; at += size) {
    size = std::min(next(), doc.size() - at);
    result = parser.streamIn(doc.data() + at, static_cast<int>(size), 0);
    reader.streamIn(doc.data() + at, static_cast<int>(size), 0);
  }
  if (result == 0) result = parser.streamIn(nullptr, 0, 1);
  reader.streamIn(nullptr, 0, 1);
  EXPECT_EQ(parser.getError().code, reader.getError().code);
  return {result, parser.getError().code, events.log, parser.getErrorOffset(), reader.toJSON()};
}

Parsed parse(const std::string& doc, bool bytewise = false, int maxDepth = JSONParser::kDefaultMaxDepth) {
  return feed(doc, [&] { return bytewise ? size_t{1} : doc.size(); }, maxDepth);
}

TEST(JSONParser, MalformedDocumentsGiveTheirErrorWholeAndBytewise) {
  const std::pair<int, std::vector<std::string>> groups[] = {
      {JSONParser::kErrorTruncated, {"{", "[1,2", "{\"a\":", "\"abc\\", "\"\\u12", "\"\\ud83d", "\"\xC3", "tru", "-", "1e+"}},
      {JSONParser::kErrorEmpty, {"", " \r\n\t "}},
      {JSONParser::kErrorUnexpectedChar, {"[1,]", "{\"a\":1,}", "[1 2]", "{1:2}", "[1}", "]", "+1", ".5", "True"}},
      {JSONParser::kErrorBadEscape, {"\"\\x\"", "\"\\U0041\"", "\"\\u12G4\""}},
      {JSONParser::kErrorBadSurrogate, {"\"\\ud800\"", "\"\\udc00\"", "\"\\ud800\\u0041\"", "\"\\ud800x\""}},
      {JSONParser::kErrorBadNumber, {"01", "-01", "-a", "1.e5", "1e+x"}},
      {JSONParser::kErrorControlChar, {"\"a\x01z\"", "\"a\nz\"", "{\"k\x1f\":1}"}},
      {JSONParser::kErrorBadUtf8, {"\"\xC0\xAF\"", "\"\xED\xA0\x80\"", "\"\xF4\x90\x80\x80\"", "\"\x80\"", "\"\xE2\x82\""}},
      {JSONParser::kErrorBadLiteral, {"truE"}},
      {JSONParser::kErrorTrailingData, {"nulll", "1 2", "[]]"}},
  };
  for (const auto& [code, docs] : groups) {
    for (const std::string& doc : docs) {
      SCOPED_TRACE(doc);
      Parsed whole = parse(doc), bytewise = parse(doc, true);
      EXPECT_EQ(whole.result, -1);
      EXPECT_EQ(whole.code, code);
      EXPECT_EQ(bytewise.code, code);
      EXPECT_EQ(bytewise.offset, whole.offset);
      EXPECT_EQ(bytewise.events, whole.events);
    }
  }
  // The offset, line and column of an error, until a reset.
  JSONParser parser(nullptr);
  std::string doc = "{\n  \"a\": 1,\n  \"b\": tru3\n}";
  EXPECT_EQ(parser.streamIn(doc.data(), 12, 0), 0);
  EXPECT_EQ(parser.streamIn(doc.data() + 12, static_cast<int>(doc.size() - 12), 1), -1);
  EXPECT_EQ(parser.getErrorOffset(), static_cast<long long>(doc.find('3')));
  EXPECT_EQ(parser.getErrorLine(), 3);
  EXPECT_EQ(parser.getErrorColumn(), 11);
  EXPECT_NE(parser.getError().message.find("line 3, column 11"), std::string::npos);
  parser.reset();
  EXPECT_EQ(parser.streamIn("[2]", 3, 1), 0);
}

TEST(JSONParser, EveryValueKindGivesItsDecodedEvents) {
  std::vector<std::pair<std::string, std::string>> cases = {
      {"\"text\"", "( ='text ) "},
      {"null", "( =null ) "},
      {"[]", "[ ) "},
      {"{\"a\":1,\"b\":[true,{}],\"c\":\"x\"}", "( (a =1 ) [b ( =true ) ( ) ) (c ='x ) ) "},
      {" [ [ ] , { \"\" : false } ] ", "[ [ ) ( ( =false ) ) ) "},
      {"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\"", "( ='\"\\/\b\f\n\r\t ) "},
      {"\"\\u0041\\u00E9\\u20ac\\uffff\"", "( ='A\xC3\xA9\xE2\x82\xAC\xEF\xBF\xBF ) "},
      {"\"\\ud834\\udd1e!\\udbff\\udfff\"", "( ='\xF0\x9D\x84\x9E!\xF4\x8F\xBF\xBF ) "},
  };
  for (const char* number : {"0", "-0", "-12", "-0.25", "1E+2", "2e-3", "0E-1", "123456789012345678901234567890"}) {
    cases.push_back({number, std::string("( =") + number + " ) "});
  }
  for (const auto& [doc, events] : cases) {
    SCOPED_TRACE(doc);
    EXPECT_EQ(parse(doc).result, 0);
    EXPECT_EQ(parse(doc).events, events);
    EXPECT_EQ(parse(doc + "\n", true).events, events);
  }
  // Random cuts of a document with every token kind: the same events and tree.
  const std::string mixed =
      "{\"name\":\"caf\xC3\xA9 \\u00e9\\\"q\\\" \\ud83d\\ude00\\n\",\r\n \"numbers\" : [0, -3.25, 6.02e23, 1E-9],\n"
      " \"flags\":[true,false,null],\t\"empty\":{}, \"deep\":[[{\"k\\u0041y\":[\"\\t\\/\"]}]], \"last\":-0.0e-0}\n";
  Parsed whole = parse(mixed);
  ASSERT_EQ(whole.result, 0);
  EXPECT_NE(whole.tree.find("\"kAy\""), std::string::npos);
  for (unsigned seed = 1; seed <= 30; ++seed) {
    std::mt19937 rng(seed);
    Parsed cut = feed(mixed, [&] { return 1 + rng() % (seed % 4 ? 7 : 64); });
    EXPECT_EQ(cut.events, whole.events) << seed;
    EXPECT_EQ(cut.tree, whole.tree) << seed;
  }
}

TEST(JSONParser, NestingAndTokenLengthAreLimited) {
  for (int depth : {512, 513, 100000}) {
    const std::string doc = std::string(depth, '[') + std::string(depth, ']');
    Parsed whole = parse(doc);
    if (depth <= JSONParser::kDefaultMaxDepth) {
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
}

int read(JSONReader& reader, const std::string& doc) {
  reader.clear();
  int result = reader.streamIn(doc.data(), static_cast<int>(doc.size()), 0);
  return result == 0 ? reader.streamIn(nullptr, 0, 1) : result;
}

std::string valueAt(const TreeNode& root, const std::string& path) {
  const std::string* value = root.lookupValue(path);
  return value ? *value : "<none>";
}

TEST(JSONReader, TreesLookupsPrintsAndRecordReuse) {
  JSONReader reader;
  const std::string rfc =
      "{\"Image\": {\"Width\": 800, \"Title\": \"View\", \"Thumbnail\": {\"Url\": \"http://x/1\", "
      "\"Height\": 125}, \"Animated\" : false, \"IDs\": [116, 943, 234, 38793]}}";
  ASSERT_EQ(read(reader, rfc), 0);
  EXPECT_TRUE(reader.isComplete());
  EXPECT_EQ(valueAt(reader, "Image/Thumbnail/Url"), "http://x/1");
  EXPECT_EQ(valueAt(reader, "Image/IDs/item[3]"), "38793");
  EXPECT_EQ(valueAt(reader, "Image/IDs/[2]"), "234");
  EXPECT_EQ(reader.lookup("Image/Thumbnail")->getParent(), reader.lookup("Image"));
  const std::pair<const char*, const char*> scalars[] = {{"\"Hi\"", "Hi"}, {"42", "42"}, {" null ", "null"}};
  for (auto [doc, value] : scalars) {
    ASSERT_EQ(read(reader, doc), 0);
    EXPECT_EQ(reader.getChildCount(), 0);
    EXPECT_EQ(valueAt(reader, ""), value);
    EXPECT_EQ(reader.isLiteral(), doc[0] != '"');
  }
  // The print is compact JSON that parses back to itself.
  for (std::string doc : {"{\"a\":[],\"b\":{},\"c\":[[],[{}]],\"e\":[\"\\u0001\\u001f\\\"\\\\/\\n\"]}",
                          "{\"dup\":1,\"dup\":2,\"\":\"empty key\"}", "{\"a\\u0000b\":\"x\\u0000y\"}"}) {
    ASSERT_EQ(read(reader, doc), 0) << doc;
    EXPECT_EQ(reader.toJSON(), doc);
  }
  EXPECT_EQ(reader.getFirstChild()->getName(), std::string("a\0b", 3));
  ASSERT_EQ(read(reader, "[1,-2.5e-3,\"\\ud83d\\ude00\"]"), 0);
  EXPECT_EQ(reader.toJSON(), "[1,-2.5e-3,\"\xF0\x9F\x98\x80\"]");
  // A cleared reader reuses its records, and forgets a document or an error.
  std::string list = "{\"list\":[";
  for (int i = 0; i < 500; ++i) list += (i ? ",{\"n\":" : "{\"n\":") + std::to_string(i) + "}";
  list += "]}";
  ASSERT_EQ(read(reader, list), 0);
  size_t records = reader.getPoolNodeCount();
  ASSERT_EQ(read(reader, list), 0);
  EXPECT_EQ(reader.getPoolNodeCount(), records);
  EXPECT_EQ(valueAt(reader, "list/item[499]/n"), "499");
  EXPECT_EQ(read(reader, "{\"a\":[1,2,]}"), -1);
  EXPECT_TRUE(reader.hasError());
  EXPECT_FALSE(reader.isComplete());
  ASSERT_EQ(read(reader, "[7]"), 0);
  EXPECT_FALSE(reader.hasError());
  EXPECT_EQ(reader.toJSON(), "[7]");
  std::vector<unsigned char>* raw = reader.getRawData("{\"q\":1}");
  EXPECT_EQ(std::string(raw->begin(), raw->end()), "{\"q\":1}");
}

TEST(TreeNode, LookupsPrintsAndClears) {
  TreeNode root;
  TreeNode* catalog = root.createSubEntry("catalog");
  catalog->createSubAttribute("version", "2");
  catalog->createSubEntry("book")->createSubAttribute("id", "a")->setLeafValue("One", false);
  TreeNode* second = catalog->createSubEntry("book");
  second->createSubAttribute("id", "b");
  second->setLeafValue("Two & more", false);
  catalog->createSubEntry("note")->createSubAttribute("q", "say \"<hi>\" & go");
  const std::pair<const char*, const char*> paths[] = {
      {"catalog/book", "One"},     {"catalog/book[1]", "Two & more"}, {"catalog/[1]", "Two & more"},
      {"catalog/book[2]", nullptr}, {"catalog/book[1]/@id", "b"},     {"catalog/@version", "2"},
      {"catalog/@missing", nullptr}, {"catalog/note", nullptr},       {"catalog/", nullptr},
      {"/catalog", nullptr},       {"catalog//book", nullptr},        {"catalog/book[x]", nullptr},
      {"catalog/book[", nullptr},  {"nothing/book", nullptr}};
  for (auto [path, value] : paths) {
    const std::string* got = root.lookupValue(path);
    EXPECT_EQ(got ? *got : "<none>", value ? value : "<none>") << path;
  }
  EXPECT_EQ(root.lookup(""), &root);
  EXPECT_EQ(root.lookup("catalog/[3]"), nullptr);
  TreeNode nested("r");  // a malformed step finds nothing, not what the step before named
  nested.createSubEntry("a")->createSubEntry("a");
  EXPECT_EQ(nested.lookup("a/b[x]"), nullptr);
  EXPECT_EQ(catalog->getChild(-1), nullptr);
  EXPECT_EQ(catalog->getParent(), &root);
  TreeNode* book = catalog->getChild(0);
  book->createSubAttribute("id", "shadowed");
  EXPECT_EQ(book->getAttribute("id"), "a");  // the first of a repeated name
  EXPECT_EQ(root.toXML(),
            "<catalog version=\"2\"><book id=\"a\" id=\"shadowed\">One</book><book id=\"b\">Two &amp; more</book>"
            "<note q=\"say &quot;&lt;hi&gt;&quot; &amp; go\"/></catalog>");
  EXPECT_EQ(second->toJSON(), "{\"@id\":\"b\",\"#text\":\"Two & more\"}");
  TreeNode withChild("n");  // attributes before children, without text
  withChild.createSubAttribute("a", "1");
  withChild.createSubEntry("c");
  EXPECT_EQ(withChild.toJSON(), "{\"@a\":\"1\",\"c\":{}}");
  // Clearing gives the records back for reuse and keeps the name.
  size_t made = root.getPoolNodeCount();
  catalog->clear();
  EXPECT_EQ(root.toXML(), "<catalog/>");
  for (int i = 0; i < 3; ++i) catalog->createSubEntry("x")->createSubAttribute("k", "v");
  EXPECT_EQ(root.getPoolNodeCount(), made);
  // Deep trees print and clear without recursion.
  const int depth = 200000;
  TreeNode deep("r");
  TreeNode* node = &deep;
  for (int i = 0; i < depth; ++i) node = node->createSubEntry("d");
  node->setLeafValue("end", false);
  EXPECT_EQ(deep.toXML().size(), 7u + 3u + depth * 7u);
  std::string json = deep.toJSON();
  EXPECT_EQ(json.substr(json.size() - depth - 9), "\"d\":\"end\"" + std::string(depth, '}'));
  deep.clear();
  EXPECT_EQ(deep.getChildCount(), 0);
}

bool expat(XMLReader& reader, const std::string& doc, size_t piece) {
  XML_Parser parser = XML_ParserCreate("UTF-8");
  XML_SetUserData(parser, &reader);
  XML_SetElementHandler(parser, &XMLReader::startElem, &XMLReader::endElem);
  XML_SetCharacterDataHandler(parser, &XMLReader::data);
  bool ok = true;
  for (size_t at = 0; at < doc.size() && ok; at += piece) {
    ok = XML_Parse(parser, doc.data() + at, static_cast<int>(std::min(piece, doc.size() - at)), 0) == XML_STATUS_OK;
  }
  ok = ok && XML_Parse(parser, nullptr, 0, 1) == XML_STATUS_OK;
  XML_ParserFree(parser);
  return ok;
}

TEST(XMLReader, ExpatEventsBuildTheTreeWhateverThePieces) {
  const std::string body =
      "<rss version=\"2.0\"><channel lang=\"en\"><title>Caf\xC3\xA9 &amp; News</title>"
      "<item id=\"1\"><name>first</name></item><item id=\"2\" kind=\"&lt;b&gt;\"><name>a\r\nb&#x41;</name></item>"
      "<empty/></channel></rss>";
  for (size_t piece : {size_t{1000}, size_t{1}, size_t{7}}) {
    XMLReader reader;
    ASSERT_TRUE(expat(reader, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + body, piece));
    EXPECT_EQ(reader.getCurrent(), &reader);
    EXPECT_EQ(*reader.lookupValue("rss/channel/title"), "Caf\xC3\xA9 & News");
    EXPECT_EQ(*reader.lookupValue("rss/channel/item[1]/@kind"), "<b>");
    EXPECT_EQ(*reader.lookupValue("rss/channel/item[1]/name"), "a\nbA");
    EXPECT_EQ(reader.toXML(), std::string(body).replace(body.find("\r\nb&#x41;"), 9, "\nbA")) << piece;
  }
  // Attribute lists stop at the first null name; an end at the root stops all.
  XMLReader reader;
  const char* attrs[] = {"a", "1", "b", nullptr, nullptr, "ignored"};
  XMLReader::startElem(&reader, "e", attrs);
  XMLReader::data(&reader, "abc", 2);
  XMLReader::data(&reader, "cd", 2);
  XMLReader::endElem(&reader, "e");
  XMLReader::endElem(&reader, "root");
  EXPECT_EQ(reader.getCurrent(), nullptr);
  XMLReader::startElem(&reader, "late", attrs);
  EXPECT_EQ(reader.toXML(), "<e a=\"1\" b=\"\">abcd</e>");
}

// Its result as processResult() leaves it, until the next transfer begins.
class Response : public webs::MethodResponse {
 public:
  void processResult() override {
    reader->log += "result ";
    success = true;
    errorCode = "code";
    errorMsg = "message";
  }
  Recorder* reader = nullptr;
};

TEST(MethodResponse, EachTransferCallsItsReaderInSequence) {
  Recorder reader, second;
  Response response;
  response.reader = &reader;
  response.initialize(&reader);
  response.readyReceive();
  char body[] = "abcdef";
  EXPECT_EQ(response.receive(body, 4, nullptr, 3), 4);
  EXPECT_EQ(response.receive(body + 4, 2, nullptr, 3), 2);
  response.finishReceive();
  EXPECT_EQ(reader.log, "init clear ready in(abcd,0) in(ef,0) in(null,1) result ");
  EXPECT_TRUE(response.isSuccess());
  EXPECT_EQ(response.getErrorCode() + response.getErrorMsg(), "codemessage");
  response.switchReader(&second);
  response.readyReceive();
  EXPECT_EQ(second.log, "clear ready ");
  EXPECT_FALSE(response.isSuccess());
  EXPECT_EQ(response.getErrorCode() + response.getErrorMsg(), "");
}

}  // namespace
}  // namespace testsupport
