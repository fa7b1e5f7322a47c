// TreeNode: building, lookup, clearing with record reuse, and printing.
#include "doc/tree_node.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using webs::TreeNode;

// <catalog version="2"><book id="a">One</book><book id="b">Two &amp; more</book>
// <note/></catalog>
void buildCatalog(TreeNode& root) {
  TreeNode* catalog = root.createSubEntry("catalog");
  catalog->createSubAttribute("version", "2");
  catalog->createSubEntry("book")->createSubAttribute("id", "a")->setLeafValue("One", false);
  TreeNode* second = catalog->createSubEntry("book");
  second->createSubAttribute("id", "b");
  second->setLeafValue("Two & more", false);
  catalog->createSubEntry("note");
}

TEST(TreeNodeTest, ChildrenAttributesAndParents) {
  TreeNode root;
  buildCatalog(root);
  TreeNode* catalog = root.findSubEntry("catalog");
  ASSERT_NE(catalog, nullptr);
  EXPECT_EQ(catalog->getParent(), &root);
  EXPECT_EQ(root.getParent(), nullptr);
  EXPECT_EQ(catalog->getChildCount(), 3);
  EXPECT_EQ(catalog->getChild(-1), nullptr);
  EXPECT_EQ(catalog->findSubEntry("book", 1), catalog->getChild(1));
  // A repeated attribute name is kept in order; lookups find the first.
  TreeNode* book = catalog->getChild(0);
  book->createSubAttribute("lang", "en")->createSubAttribute("id", "shadowed");
  EXPECT_EQ(book->getAttribute("id"), "a");
  EXPECT_EQ(book->getAttribute("missing"), "");
  EXPECT_EQ(book->findAttribute("missing"), nullptr);
  EXPECT_EQ(book->toXML(), "<book id=\"a\" lang=\"en\" id=\"shadowed\">One</book>");
}

TEST(TreeNodeTest, PathLookups) {
  TreeNode root;
  buildCatalog(root);
  struct Case {
    const char* path;
    const char* value;  // null: no value there
  } cases[] = {
      {"catalog/book", "One"},
      {"catalog/book[0]", "One"},
      {"catalog/book[1]", "Two & more"},
      {"catalog/[1]", "Two & more"},
      {"catalog/book[2]", nullptr},
      {"catalog/book/@id", "a"},
      {"catalog/book[1]/@id", "b"},
      {"catalog/@version", "2"},
      {"catalog/@missing", nullptr},
      {"catalog/note", nullptr},
      {"catalog", nullptr},
      {"catalog/", nullptr},
      {"/catalog", nullptr},
      {"catalog//book", nullptr},
      {"catalog/book[x]", nullptr},
      {"catalog/book[", nullptr},
      {"nothing/book", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const std::string* value = root.lookupValue(c.path);
    if (c.value) {
      ASSERT_NE(value, nullptr);
      EXPECT_EQ(*value, c.value);
    } else {
      EXPECT_EQ(value, nullptr);
    }
  }
  EXPECT_EQ(root.lookup(""), &root);
  EXPECT_EQ(root.lookup("catalog/note"), root.lookup("catalog")->getChild(2));
  EXPECT_EQ(root.lookup("catalog/[3]"), nullptr);  // past the last child
  EXPECT_EQ(root.lookup("catalog/book[1]")->lookup(""), root.lookup("catalog/book[1]"));
}

TEST(TreeNodeTest, ClearReturnsRecordsForReuse) {
  TreeNode root("root");
  root.createSubAttribute("a", "1");
  root.setLeafValue("v", false);
  for (int round = 0; round < 4; ++round) {
    for (int i = 0; i < 100; ++i) {
      root.createSubEntry("x")->createSubEntry("y")->createSubAttribute("k", "v");
    }
    EXPECT_EQ(root.getChildCount(), 100);
    size_t made = root.getPoolNodeCount();
    EXPECT_GE(made, 200u);
    root.clear();
    EXPECT_EQ(root.toXML(), "<root/>");  // name kept; children, attributes, value gone
    EXPECT_EQ(root.getPoolNodeCount(), made);
  }
  // Clearing an inner node gives back only its subtree.
  TreeNode* keep = root.createSubEntry("keep");
  TreeNode* drop = root.createSubEntry("drop");
  drop->createSubEntry("a")->createSubEntry("b");
  drop->clear();
  EXPECT_EQ(drop->getChildCount(), 0);
  EXPECT_EQ(root.getChildCount(), 2);
  EXPECT_EQ(root.getChild(0), keep);
  EXPECT_EQ(root.toXML(), "<root><keep/><drop/></root>");
}

TEST(TreeNodeTest, PrintsEscapedXMLAndJSONWithAttributesAndTextAsMembers) {
  TreeNode root;
  buildCatalog(root);
  EXPECT_EQ(root.toJSON(),
            "{\"catalog\":{\"@version\":\"2\",\"book\":{\"@id\":\"a\",\"#text\":\"One\"},"
            "\"book\":{\"@id\":\"b\",\"#text\":\"Two & more\"},\"note\":{}}}");
  root.lookup("catalog/note")->createSubAttribute("q", "say \"<hi>\" & go");
  EXPECT_EQ(root.toXML(),
            "<catalog version=\"2\"><book id=\"a\">One</book><book id=\"b\">Two &amp; more</book>"
            "<note q=\"say &quot;&lt;hi&gt;&quot; &amp; go\"/></catalog>");
  EXPECT_EQ(root.lookup("catalog/book[1]")->toXML(), "<book id=\"b\">Two &amp; more</book>");
  TreeNode mixed("m");
  mixed.setLeafValue("a<b>", true);
  mixed.setLeafValue("a<b>\"c", false);  // replaces, and is text now
  mixed.appendLeafValue("\"", 1);
  mixed.createSubEntry("c");
  EXPECT_EQ(mixed.toXML(), "<m>a&lt;b&gt;\"c\"<c/></m>");

  TreeNode list("list");
  list.setArray(true);
  list.createSubEntry("item")->setLeafValue("1", true);
  list.createSubEntry("item")->setLeafValue("tab\there \x01 \"q\" \\", false);
  list.createSubEntry("item")->setArray(true);
  list.createSubEntry("item")->setLeafValue("", false);
  EXPECT_EQ(list.toJSON(), "[1,\"tab\\there \\u0001 \\\"q\\\" \\\\\",[],\"\"]");
}

TEST(TreeNodeTest, VeryDeepTreesPrintAndClearWithoutRecursion) {
  const int depth = 200000;
  TreeNode root("r");
  TreeNode* node = &root;
  for (int i = 0; i < depth; ++i) node = node->createSubEntry("d");
  node->setLeafValue("end", false);
  std::string xml = root.toXML();
  EXPECT_EQ(xml.size(), 7u + 3u + depth * 7u);
  EXPECT_EQ(xml.substr(0, 9), "<r><d><d>");
  std::string json = root.toJSON();
  // The root and every inner level close after the innermost leaf.
  EXPECT_EQ(json.substr(json.size() - depth - 9), "\"d\":\"end\"" + std::string(depth, '}'));
  root.clear();
  EXPECT_EQ(root.getChildCount(), 0);
}

}  // namespace
