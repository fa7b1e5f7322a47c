// webs::TreeReader: a streaming reader of a structured document.
//
// A reader takes the bytes of a document in pieces (streamIn) and builds a
// TreeNode tree from node events: readNodeBegin opens an element,
// readNodeValue gives it text and readNodeEnd closes it. JSONReader makes the
// events itself from the bytes; XMLReader gets them from an outside XML event
// source. A MethodResponse feeds a reader the body of a transfer; it does not
// own the reader.
//
// Threads: no lock; one thread at a time (the transfer thread while a body
// arrives, the owner before and after).
#ifndef CORVANE_DOC_TREE_READER_H_
#define CORVANE_DOC_TREE_READER_H_

#include <string>
#include <vector>

namespace webs {

class TreeReader {
 public:
  // Takes `size` bytes of the document; `isLast` is non-zero once, after the
  // last byte (with no data). Returns 0, or a negative value once the
  // document is known to be malformed.
  virtual int streamIn(const char* data, int size, int isLast) = 0;
  // One-time set-up before the first document.
  virtual void initialize() = 0;
  // Forgets what the previous document left, ahead of a new transfer.
  virtual void clear() = 0;
  virtual void readNodeBegin(const char* name, bool flag) = 0;
  virtual void readNodeEnd(const char* name) = 0;
  virtual void readNodeValue(const char* text, bool flag) = 0;
  // Called once the reader is clear, right before the first byte arrives.
  virtual void readyRead() = 0;
  // `text` as the bytes of a document of this reader's kind, in an array
  // owned by the reader (valid until the next call).
  virtual std::vector<unsigned char>* getRawData(const std::string& text) = 0;
  virtual ~TreeReader() {}
};

}  // namespace webs

#endif  // CORVANE_DOC_TREE_READER_H_
