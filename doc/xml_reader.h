// webs::XMLReader: builds a TreeNode tree, rooted in the reader itself, from
// the events of an outside XML parser.
//
// The reader has no tokenizer: streamIn() takes bytes and ignores them. An
// event source of the SAX (expat) kind drives the static callbacks
// startElem, endElem and data with the reader as its user data; each begin
// event adds a child to the current node and makes it current, each end
// event moves back to the parent, and text is appended to the current
// node's value. Sources must keep begin and end events balanced: an end
// event at the root leaves no current node, after which events are ignored.
// clear() keeps the tree (so a MethodResponse's readyReceive does not empty
// it); TreeNode::clear() on the reader empties it.
//
// Threads: no lock; the thread running the event source, then the owner.
#ifndef CORVANE_DOC_XML_READER_H_
#define CORVANE_DOC_XML_READER_H_

#include <string>
#include <vector>

#include "doc/tree_node.h"
#include "doc/tree_reader.h"

namespace webs {

class XMLReader : public TreeReader, public TreeNode {
 public:
  XMLReader();

  int streamIn(const char* data, int size, int isLast) override;
  void initialize() override;
  void clear() override;
  void readNodeBegin(const char* name, bool flag) override;
  void readNodeEnd(const char* name) override;
  void readNodeValue(const char* text, bool flag) override;
  void readyRead() override;
  // Copies `text` followed by the 38-byte declaration
  // <?xml version="1.0" encoding="UTF-8"?> into the reader's array.
  std::vector<unsigned char>* getRawData(const std::string& text) override;
  ~XMLReader() override;

  void readEntryAttri(const char* name, const char* value, bool flag);
  // `attrs` alternates names and values and ends with a null name.
  void readEntryAttris(const char** attrs);

  // Callbacks in the shape of expat's start-element, end-element and
  // character-data handlers; `reader` is the XMLReader.
  static void startElem(void* reader, const char* name, const char** attrs);
  static void endElem(void* reader, const char* name);
  static void data(void* reader, const char* s, int len);

  TreeNode* getCurrent() const { return current; }
  bool isInitialized() const { return initialised; }

 private:
  TreeNode* current;
  std::vector<unsigned char> rawData;
  bool initialised;
};

}  // namespace webs

#endif  // CORVANE_DOC_XML_READER_H_
