// webs::JSONParser: a streaming JSON (RFC 8259) parser.
//
// The document arrives in pieces through streamIn(data, size, isLast), cut
// anywhere (inside a string, an escape, a number, a literal or a UTF-8
// sequence), and the parser drives a TreeReader with node events as values
// complete:
//   object or array      readNodeBegin(name, isArray) ... readNodeEnd("")
//   string               readNodeBegin(name, false), readNodeValue(text, false),
//                        readNodeEnd("")
//   number, true, false, readNodeBegin(name, false), readNodeValue(text, true),
//   null                 readNodeEnd("")
// `name` is the member's key inside an object and "" for an array element or
// the document's top value. Numbers are passed as their text, unconverted.
// Strings are decoded (escapes, surrogate pairs) to UTF-8; a decoded string
// may contain NUL bytes, so a reader that cares takes the full string from
// key() and text(), whose c_str() is what the events pass.
//
// Malformed input sets a sticky error state (code, message, byte offset,
// line and column) and ends the events; the parser never throws. The work
// is a state machine over bytes: nesting is tracked in a byte stack limited
// to maxDepth (512 by default, its own error past that), a single string or
// number is limited to maxTokenSize bytes, and nothing recurses, so memory
// and stack stay bounded whatever the input.
//
// Threads: no lock; one thread at a time (the owner's reader's thread).
#ifndef CORVANE_DOC_JSON_PARSER_H_
#define CORVANE_DOC_JSON_PARSER_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "doc/tree_node_error.h"
#include "doc/tree_reader.h"

namespace webs {

class JSONParser {
 public:
  enum ErrorCode {
    kErrorNone = 0,
    kErrorUnexpectedChar = 1,  // a byte that cannot come here (incl. trailing commas)
    kErrorTruncated = 2,       // the document ended inside a value
    kErrorEmpty = 3,           // no value at all
    kErrorBadEscape = 4,       // an unknown escape or a bad \u sequence
    kErrorBadSurrogate = 5,    // a lone or misordered UTF-16 surrogate escape
    kErrorBadUtf8 = 6,         // invalid UTF-8 inside a string
    kErrorControlChar = 7,     // an unescaped byte below 0x20 inside a string
    kErrorBadNumber = 8,       // leading zero, missing digits
    kErrorBadLiteral = 9,      // neither true, false nor null
    kErrorTooDeep = 10,        // nesting past maxDepth
    kErrorTooLong = 11,        // a string or number past maxTokenSize
    kErrorTrailingData = 12,   // more than whitespace after the top value
  };

  static constexpr int kDefaultMaxDepth = 512;
  static constexpr size_t kDefaultMaxTokenSize = 64u << 20;

  // `sink` receives the events (not owned; may be null for validation only).
  explicit JSONParser(TreeReader* sink, int maxDepth = kDefaultMaxDepth,
                      size_t maxTokenSize = kDefaultMaxTokenSize);

  JSONParser(const JSONParser&) = delete;
  JSONParser& operator=(const JSONParser&) = delete;

  // Ready for a new document; clears the error.
  void reset();
  // Parses `size` bytes (none when data is null). A non-zero `isLast` ends
  // the document: a value still open is an error. Returns 0, or -1 in the
  // error state (then and for every later call until reset()).
  int streamIn(const char* data, int size, int isLast);

  bool hasError() const { return error_.code != kErrorNone; }
  // True once a complete document has been ended with isLast.
  bool isFinished() const { return finished_; }
  const TreeNodeError& getError() const { return error_; }
  // Where the error was found: 0-based byte offset, 1-based line and column.
  long long getErrorOffset() const { return errorOffset_; }
  long long getErrorLine() const { return errorLine_; }
  long long getErrorColumn() const { return errorColumn_; }
  int getDepth() const { return static_cast<int>(depth_); }

  // The last member key and the last scalar's text, full length.
  const std::string& key() const { return key_; }
  const std::string& text() const { return text_; }

 private:
  enum State : uint8_t {
    kValue, kValueOrClose, kKeyOrClose, kKey, kColon, kAfterValue, kDone,
    kString, kEscape, kUnicode, kSurrogateBackslash, kSurrogateU,
    kNumber, kLiteral, kFailed,
  };
  enum NumberState : uint8_t {
    kNumStart, kNumMinus, kNumZero, kNumInt, kNumDot, kNumFrac, kNumExp, kNumExpSign, kNumExpDigits,
  };

  long long offsetOf(const unsigned char* p) const {
    return chunkOffset_ + static_cast<long long>(p - chunkBegin_);
  }
  void fail(int code, const char* what, long long offset);
  void failAt(int code, const char* what, const unsigned char* p) { fail(code, what, offsetOf(p)); }

  void consume(const unsigned char* p, const unsigned char* end);
  const unsigned char* structural(const unsigned char* p);
  const unsigned char* startValue(const unsigned char* p);
  const unsigned char* scanString(const unsigned char* p, const unsigned char* end);
  const unsigned char* scanNumber(const unsigned char* p, const unsigned char* end);
  void escape(const unsigned char* p);
  void unicodeDigit(const unsigned char* p);
  void openContainer(bool array, const unsigned char* p);
  void closeContainer();
  void endString();
  void emitScalar(const char* text, bool literal);
  void valueDone() { state_ = depth_ == 0 ? kDone : kAfterValue; }
  bool inObject() const;
  const char* memberName() const { return inObject() ? key_.c_str() : ""; }
  void appendCodePoint(uint32_t cp);
  void finish();

  TreeReader* sink_;
  const size_t maxDepth_;
  const size_t maxTokenSize_;

  State state_ = kValue;
  NumberState number_ = kNumInt;
  // Open containers, one byte each (1 = array); reserved to maxDepth once.
  std::string stack_;
  size_t depth_ = 0;
  bool keyString_ = false;
  bool finished_ = false;
  uint8_t utf8Need_ = 0;
  uint8_t utf8Low_ = 0x80;
  uint8_t utf8High_ = 0xBF;
  uint8_t hexCount_ = 0;
  uint32_t hexValue_ = 0;
  uint32_t highSurrogate_ = 0;
  const char* literal_ = nullptr;
  uint8_t literalPos_ = 0;
  std::string key_;
  std::string text_;

  const unsigned char* chunkBegin_ = nullptr;
  long long chunkOffset_ = 0;
  long long line_ = 1;
  long long lineStart_ = 0;

  TreeNodeError error_;
  long long errorOffset_ = 0;
  long long errorLine_ = 0;
  long long errorColumn_ = 0;
};

}  // namespace webs

#endif  // CORVANE_DOC_JSON_PARSER_H_
