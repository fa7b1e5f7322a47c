// XMLReader driven by expat as the outside event source.
#include "doc/xml_reader.h"

#include <expat.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using webs::TreeNode;
using webs::XMLReader;

// Runs expat over `doc` in pieces of `piece` bytes, with the reader's
// static callbacks as handlers. Returns expat's final status.
bool parseWithExpat(XMLReader& reader, const std::string& doc, size_t piece) {
  XML_Parser parser = XML_ParserCreate("UTF-8");
  XML_SetUserData(parser, &reader);
  XML_SetElementHandler(parser, &XMLReader::startElem, &XMLReader::endElem);
  XML_SetCharacterDataHandler(parser, &XMLReader::data);
  bool ok = true;
  for (size_t at = 0; at < doc.size() && ok; at += piece) {
    size_t size = std::min(piece, doc.size() - at);
    ok = XML_Parse(parser, doc.data() + at, static_cast<int>(size), 0) == XML_STATUS_OK;
  }
  ok = ok && XML_Parse(parser, nullptr, 0, 1) == XML_STATUS_OK;
  XML_ParserFree(parser);
  return ok;
}

const char kFeed[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<rss version=\"2.0\"><channel lang=\"en\" region=\"eu\">"
    "<title>Caf\xC3\xA9 &amp; News</title>"
    "<item id=\"1\"><name>first</name></item>"
    "<item id=\"2\" kind=\"&lt;b&gt;\"><name>second\nline</name></item>"
    "<empty/>"
    "</channel></rss>";

// The tree printed back is the feed without its declaration, whatever the
// pieces expat was given.
TEST(XMLReaderTest, ExpatEventsBuildTheTreeWhateverThePieces) {
  const std::string feed = kFeed;
  const std::string expected = feed.substr(feed.find('\n') + 1);
  for (size_t piece : {feed.size(), size_t{1}, size_t{7}}) {
    SCOPED_TRACE(piece);
    XMLReader reader;
    ASSERT_TRUE(parseWithExpat(reader, feed, piece));
    EXPECT_EQ(reader.getCurrent(), &reader);
    EXPECT_EQ(*reader.lookupValue("rss/channel/title"), "Caf\xC3\xA9 & News");
    EXPECT_EQ(*reader.lookupValue("rss/channel/item[1]/@kind"), "<b>");
    EXPECT_EQ(*reader.lookupValue("rss/channel/item[1]/name"), "second\nline");
    EXPECT_FALSE(reader.lookup("rss/channel/empty")->hasValue());
    EXPECT_EQ(reader.toXML(), expected);
  }
}

TEST(XMLReaderTest, TextEventsOnOneElementAreConcatenatedInOrder) {
  XMLReader reader;
  XMLReader::startElem(&reader, "t", nullptr);
  XMLReader::data(&reader, "abc", 2);
  XMLReader::data(&reader, "cd", 2);
  XMLReader::data(&reader, nullptr, 5);
  XMLReader::data(&reader, "e", 1);
  EXPECT_EQ(reader.lookup("t")->getValue(), "abcde");
  // expat reports entities and line ends as separate pieces.
  XMLReader expatReader;
  ASSERT_TRUE(parseWithExpat(expatReader, "<t>a &amp; b\r\nc&#x41;&lt;</t>", 64));
  EXPECT_EQ(expatReader.lookup("t")->getValue(), "a & b\ncA<");
}

TEST(XMLReaderTest, AttributeListsStopAtTheFirstNullNameAndAnEndAtTheRootStopsAll) {
  XMLReader reader;
  const char* attrs[] = {"a", "1", "b", nullptr, nullptr, "ignored"};
  XMLReader::startElem(&reader, "e", attrs);
  reader.readEntryAttri(nullptr, "v", false);
  TreeNode* e = reader.lookup("e");
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->getAttributeCount(), 2);
  EXPECT_EQ(e->getAttribute("a"), "1");
  ASSERT_NE(e->findAttribute("b"), nullptr);
  EXPECT_EQ(*e->findAttribute("b"), "");

  XMLReader::endElem(&reader, "e");
  XMLReader::endElem(&reader, "root");
  EXPECT_EQ(reader.getCurrent(), nullptr);
  XMLReader::data(&reader, "late", 4);
  reader.readEntryAttri("late", "1", false);
  XMLReader::startElem(&reader, "b", attrs);
  XMLReader::endElem(&reader, "b");
  EXPECT_FALSE(reader.hasValue());
  EXPECT_EQ(reader.getAttributeCount(), 0);
  EXPECT_EQ(reader.toXML(), "<e a=\"1\" b=\"\"/>");
}

TEST(XMLReaderTest, RawDataAppendsTheDeclarationAfterTheText) {
  XMLReader reader;
  const std::string declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
  std::vector<unsigned char>* raw = reader.getRawData("<q/>");
  ASSERT_NE(raw, nullptr);
  EXPECT_EQ(std::string(raw->begin(), raw->end()), "<q/>" + declaration);
  EXPECT_EQ(reader.getRawData(""), raw);
  EXPECT_EQ(std::string(raw->begin(), raw->end()), declaration);
}

// A transfer's reader calls keep the tree: its users read the previous
// document across transfers.
TEST(XMLReaderTest, ReaderCallsOfATransferLeaveTheTree) {
  XMLReader reader;
  ASSERT_TRUE(parseWithExpat(reader, "<a x=\"1\"><b>t</b></a>", 64));
  std::string before = reader.toXML();
  EXPECT_EQ(reader.streamIn("<c/>", 4, 0), 0);
  EXPECT_EQ(reader.streamIn(nullptr, 0, 1), 0);
  reader.clear();
  reader.readyRead();
  reader.initialize();
  EXPECT_EQ(reader.toXML(), before);
  // The tree's own clear empties it; the reader goes on from the root.
  reader.TreeNode::clear();
  EXPECT_EQ(reader.toXML(), "");
  ASSERT_TRUE(parseWithExpat(reader, "<z/>", 64));
  EXPECT_EQ(reader.toXML(), "<z/>");
}

}  // namespace
