// webs::JSONReader: builds a TreeNode tree, rooted in the reader itself,
// from a JSON document streamed in with streamIn().
//
// The reader owns a JSONParser whose events come back to the reader's own
// readNodeBegin / readNodeValue / readNodeEnd. The document's top value is
// the root: an object's members become children named by their keys, in
// document order (a repeated key gives two children); an array becomes a
// node marked isArray() whose elements are children named "item"
// (kArrayItemName), so "list/item[2]" is the third element; strings,
// numbers, true, false and null become leaf values, numbers and the three
// literals marked isLiteral() and kept as their text. Empty objects and
// arrays are nodes without children. A malformed document leaves the tree
// built up to the error and the parser's error state (hasError(),
// getError()); the tree of a malformed document is not to be trusted.
//
// clear() empties the tree and readies the parser for a new document, as a
// MethodResponse does before each transfer.
//
// Threads: no lock; one thread at a time (the transfer thread while a body
// arrives, the owner before and after).
#ifndef CORVANE_DOC_JSON_READER_H_
#define CORVANE_DOC_JSON_READER_H_

#include <string>
#include <vector>

#include "doc/json_parser.h"
#include "doc/tree_node.h"
#include "doc/tree_node_error.h"
#include "doc/tree_reader.h"

namespace webs {

class JSONReader : public TreeReader, public TreeNode {
 public:
  static constexpr char kArrayItemName[] = "item";

  explicit JSONReader(int maxDepth = JSONParser::kDefaultMaxDepth);

  // Parses a piece of the document; 0, or -1 once it is malformed.
  int streamIn(const char* data, int size, int isLast) override;
  void initialize() override;
  void clear() override;
  // `flag` is true for an array.
  void readNodeBegin(const char* name, bool flag) override;
  void readNodeEnd(const char* name) override;
  // `flag` is true for a number or a literal (printed without quotes).
  void readNodeValue(const char* text, bool flag) override;
  void readyRead() override;
  // `text` as it is: a JSON document needs no prolog.
  std::vector<unsigned char>* getRawData(const std::string& text) override;
  ~JSONReader() override;

  bool hasError() const { return parser_.hasError(); }
  const TreeNodeError& getError() const { return parser_.getError(); }
  // True once a complete, well-formed document has arrived.
  bool isComplete() const { return parser_.isFinished(); }
  const JSONParser& getParser() const { return parser_; }
  bool isInitialized() const { return initialised_; }

 private:
  JSONParser parser_;
  TreeNode* current_ = nullptr;
  // Open nodes; 0 before the top value begins.
  int depth_ = 0;
  bool initialised_ = false;
  std::vector<unsigned char> rawData_;
};

}  // namespace webs

#endif  // CORVANE_DOC_JSON_READER_H_
