#include "doc/json_parser.h"

#include <cstdio>

namespace webs {

namespace {

constexpr char kArrayMark = 1;
constexpr char kObjectMark = 0;

bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }

int hexDigit(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Plain string bytes: printable ASCII other than the quote and backslash.
bool isPlainStringByte(unsigned char c) { return c >= 0x20 && c < 0x80 && c != '"' && c != '\\'; }

}  // namespace

JSONParser::JSONParser(TreeReader* sink, int maxDepth, size_t maxTokenSize)
    : sink_(sink),
      maxDepth_(maxDepth > 0 ? static_cast<size_t>(maxDepth) : 1),
      maxTokenSize_(maxTokenSize) {
  stack_.reserve(maxDepth_);
  reset();
}

void JSONParser::reset() {
  state_ = kValue;
  number_ = kNumInt;
  stack_.clear();
  depth_ = 0;
  keyString_ = false;
  finished_ = false;
  utf8Need_ = 0;
  hexCount_ = 0;
  hexValue_ = 0;
  highSurrogate_ = 0;
  literal_ = nullptr;
  literalPos_ = 0;
  key_.clear();
  text_.clear();
  chunkBegin_ = nullptr;
  chunkOffset_ = 0;
  line_ = 1;
  lineStart_ = 0;
  error_ = TreeNodeError();
  errorOffset_ = errorLine_ = errorColumn_ = 0;
}

void JSONParser::fail(int code, const char* what, long long offset) {
  if (hasError()) return;
  state_ = kFailed;
  errorOffset_ = offset;
  errorLine_ = line_;
  errorColumn_ = offset - lineStart_ + 1;
  char message[160];
  std::snprintf(message, sizeof(message), "%s at offset %lld (line %lld, column %lld)", what,
                errorOffset_, errorLine_, errorColumn_);
  error_ = TreeNodeError(code, message);
}

int JSONParser::streamIn(const char* data, int size, int isLast) {
  if (hasError()) return -1;
  if (data && size > 0) {
    const unsigned char* begin = reinterpret_cast<const unsigned char*>(data);
    if (finished_) {
      fail(kErrorTrailingData, "data after the end of the document", chunkOffset_);
      return -1;
    }
    chunkBegin_ = begin;
    consume(begin, begin + size);
    chunkOffset_ += size;
    chunkBegin_ = nullptr;
    if (hasError()) return -1;
  }
  if (isLast && !finished_) finish();
  return hasError() ? -1 : 0;
}

void JSONParser::finish() {
  if (state_ == kNumber) {
    if (number_ == kNumZero || number_ == kNumInt || number_ == kNumFrac ||
        number_ == kNumExpDigits) {
      emitScalar(text_.c_str(), true);
    } else {
      fail(kErrorTruncated, "document ends inside a number", chunkOffset_);
      return;
    }
  }
  if (state_ == kDone) {
    finished_ = true;
  } else if (state_ == kValue && depth_ == 0) {
    fail(kErrorEmpty, "document has no value", chunkOffset_);
  } else {
    fail(kErrorTruncated, "document ends before its value is complete", chunkOffset_);
  }
}

bool JSONParser::inObject() const { return depth_ > 0 && stack_[depth_ - 1] == kObjectMark; }

void JSONParser::consume(const unsigned char* p, const unsigned char* end) {
  while (p < end) {
    switch (state_) {
      case kValue:
      case kValueOrClose:
      case kKeyOrClose:
      case kKey:
      case kColon:
      case kAfterValue:
      case kDone: {
        unsigned char c = *p;
        if (c == ' ' || c == '\t' || c == '\r') {
          ++p;
        } else if (c == '\n') {
          // Newlines are only legal between tokens, so lines are counted here.
          ++line_;
          lineStart_ = offsetOf(p) + 1;
          ++p;
        } else {
          p = structural(p);
        }
        break;
      }
      case kString:
        p = scanString(p, end);
        break;
      case kEscape:
        escape(p);
        ++p;
        break;
      case kUnicode:
        unicodeDigit(p);
        ++p;
        break;
      case kSurrogateBackslash:
        if (*p != '\\') {
          failAt(kErrorBadSurrogate, "high surrogate escape without a low one", p);
          return;
        }
        state_ = kSurrogateU;
        ++p;
        break;
      case kSurrogateU:
        if (*p != 'u') {
          failAt(kErrorBadSurrogate, "high surrogate escape without a low one", p);
          return;
        }
        state_ = kUnicode;
        hexCount_ = 0;
        hexValue_ = 0;
        ++p;
        break;
      case kNumber:
        p = scanNumber(p, end);
        break;
      case kLiteral:
        if (*p != static_cast<unsigned char>(literal_[literalPos_])) {
          failAt(kErrorBadLiteral, "invalid literal", p);
          return;
        }
        ++p;
        if (literal_[++literalPos_] == '\0') emitScalar(literal_, true);
        break;
      case kFailed:
        return;
    }
  }
}

const unsigned char* JSONParser::structural(const unsigned char* p) {
  unsigned char c = *p;
  switch (state_) {
    case kValueOrClose:
      if (c == ']') {
        closeContainer();
        return p + 1;
      }
      return startValue(p);
    case kValue:
      if ((c == ']' && depth_ > 0 && !inObject())) {
        failAt(kErrorUnexpectedChar, "trailing comma before ']'", p);
        return p;
      }
      return startValue(p);
    case kKeyOrClose:
      if (c == '}') {
        closeContainer();
        return p + 1;
      }
      [[fallthrough]];
    case kKey:
      if (c == '"') {
        keyString_ = true;
        key_.clear();
        state_ = kString;
        return p + 1;
      }
      failAt(kErrorUnexpectedChar,
             c == '}' ? "trailing comma before '}'" : "expected a member name", p);
      return p;
    case kColon:
      if (c == ':') {
        state_ = kValue;
        return p + 1;
      }
      failAt(kErrorUnexpectedChar, "expected ':' after a member name", p);
      return p;
    case kAfterValue:
      if (c == ',') {
        state_ = inObject() ? kKey : kValue;
        return p + 1;
      }
      if ((c == '}' && inObject()) || (c == ']' && !inObject())) {
        closeContainer();
        return p + 1;
      }
      failAt(kErrorUnexpectedChar,
             inObject() ? "expected ',' or '}'" : "expected ',' or ']'", p);
      return p;
    case kDone:
      failAt(kErrorTrailingData, "data after the end of the document", p);
      return p;
    default:
      return p;
  }
}

const unsigned char* JSONParser::startValue(const unsigned char* p) {
  unsigned char c = *p;
  switch (c) {
    case '{':
      openContainer(false, p);
      return p + 1;
    case '[':
      openContainer(true, p);
      return p + 1;
    case '"':
      keyString_ = false;
      text_.clear();
      state_ = kString;
      return p + 1;
    case 't':
      literal_ = "true";
      break;
    case 'f':
      literal_ = "false";
      break;
    case 'n':
      literal_ = "null";
      break;
    default:
      if (c == '-' || isDigit(c)) {
        text_.clear();
        state_ = kNumber;
        number_ = kNumStart;
        // The first character goes through the number machine like the rest.
        return p;
      }
      failAt(kErrorUnexpectedChar, "expected a value", p);
      return p;
  }
  literalPos_ = 1;
  state_ = kLiteral;
  return p + 1;
}

void JSONParser::openContainer(bool array, const unsigned char* p) {
  if (depth_ >= maxDepth_) {
    failAt(kErrorTooDeep, "nesting too deep", p);
    return;
  }
  const char* name = memberName();
  stack_.push_back(array ? kArrayMark : kObjectMark);
  ++depth_;
  state_ = array ? kValueOrClose : kKeyOrClose;
  if (sink_) sink_->readNodeBegin(name, array);
}

void JSONParser::closeContainer() {
  stack_.pop_back();
  --depth_;
  if (sink_) sink_->readNodeEnd("");
  valueDone();
}

void JSONParser::emitScalar(const char* text, bool literal) {
  if (sink_) {
    sink_->readNodeBegin(memberName(), false);
    sink_->readNodeValue(text, literal);
    sink_->readNodeEnd("");
  }
  valueDone();
}

void JSONParser::endString() {
  if (keyString_) {
    state_ = kColon;
  } else {
    emitScalar(text_.c_str(), false);
  }
}

const unsigned char* JSONParser::scanString(const unsigned char* p, const unsigned char* end) {
  std::string& out = keyString_ ? key_ : text_;
  while (p < end) {
    if (utf8Need_ == 0) {
      const unsigned char* run = p;
      while (p < end && isPlainStringByte(*p)) ++p;
      if (p > run) {
        out.append(reinterpret_cast<const char*>(run), static_cast<size_t>(p - run));
        if (out.size() > maxTokenSize_) {
          failAt(kErrorTooLong, "string too long", p);
          return end;
        }
        if (p == end) return p;
      }
    }
    unsigned char c = *p;
    if (utf8Need_ > 0) {
      if (c < utf8Low_ || c > utf8High_) {
        failAt(kErrorBadUtf8, "invalid UTF-8 in a string", p);
        return end;
      }
      out += static_cast<char>(c);
      utf8Low_ = 0x80;
      utf8High_ = 0xBF;
      --utf8Need_;
      ++p;
      continue;
    }
    if (c == '"') {
      endString();
      return p + 1;
    }
    if (c == '\\') {
      state_ = kEscape;
      return p + 1;
    }
    if (c < 0x20) {
      failAt(kErrorControlChar, "unescaped control character in a string", p);
      return end;
    }
    // A lead byte: the ranges of the following byte exclude overlong forms,
    // UTF-16 surrogates and code points past U+10FFFF.
    utf8Low_ = 0x80;
    utf8High_ = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      utf8Need_ = 1;
    } else if (c == 0xE0) {
      utf8Need_ = 2;
      utf8Low_ = 0xA0;
    } else if (c == 0xED) {
      utf8Need_ = 2;
      utf8High_ = 0x9F;
    } else if (c >= 0xE1 && c <= 0xEF) {
      utf8Need_ = 2;
    } else if (c == 0xF0) {
      utf8Need_ = 3;
      utf8Low_ = 0x90;
    } else if (c >= 0xF1 && c <= 0xF3) {
      utf8Need_ = 3;
    } else if (c == 0xF4) {
      utf8Need_ = 3;
      utf8High_ = 0x8F;
    } else {
      failAt(kErrorBadUtf8, "invalid UTF-8 in a string", p);
      return end;
    }
    out += static_cast<char>(c);
    ++p;
  }
  return p;
}

void JSONParser::escape(const unsigned char* p) {
  std::string& out = keyString_ ? key_ : text_;
  char decoded;
  switch (*p) {
    case '"': decoded = '"'; break;
    case '\\': decoded = '\\'; break;
    case '/': decoded = '/'; break;
    case 'b': decoded = '\b'; break;
    case 'f': decoded = '\f'; break;
    case 'n': decoded = '\n'; break;
    case 'r': decoded = '\r'; break;
    case 't': decoded = '\t'; break;
    case 'u':
      state_ = kUnicode;
      hexCount_ = 0;
      hexValue_ = 0;
      return;
    default:
      failAt(kErrorBadEscape, "invalid escape in a string", p);
      return;
  }
  out += decoded;
  state_ = kString;
}

void JSONParser::unicodeDigit(const unsigned char* p) {
  int digit = hexDigit(*p);
  if (digit < 0) {
    failAt(kErrorBadEscape, "invalid \\u escape", p);
    return;
  }
  hexValue_ = (hexValue_ << 4) | static_cast<uint32_t>(digit);
  if (++hexCount_ < 4) return;
  uint32_t unit = hexValue_;
  if (highSurrogate_) {
    if (unit < 0xDC00 || unit > 0xDFFF) {
      failAt(kErrorBadSurrogate, "high surrogate escape without a low one", p);
      return;
    }
    appendCodePoint(0x10000 + ((highSurrogate_ - 0xD800) << 10) + (unit - 0xDC00));
    highSurrogate_ = 0;
  } else if (unit >= 0xD800 && unit <= 0xDBFF) {
    highSurrogate_ = unit;
    state_ = kSurrogateBackslash;
    return;
  } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
    failAt(kErrorBadSurrogate, "low surrogate escape without a high one", p);
    return;
  } else {
    appendCodePoint(unit);
  }
  std::string& out = keyString_ ? key_ : text_;
  if (out.size() > maxTokenSize_) {
    failAt(kErrorTooLong, "string too long", p);
    return;
  }
  state_ = kString;
}

void JSONParser::appendCodePoint(uint32_t cp) {
  std::string& out = keyString_ ? key_ : text_;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

const unsigned char* JSONParser::scanNumber(const unsigned char* p, const unsigned char* end) {
  const unsigned char* run = p;
  bool complete = false;
  bool bad = false;
  while (p < end && !complete && !bad) {
    unsigned char c = *p;
    switch (number_) {
      case kNumStart:
        if (c == '-') {
          number_ = kNumMinus;
          break;
        }
        number_ = c == '0' ? kNumZero : kNumInt;
        break;
      case kNumMinus:
        if (!isDigit(c)) {
          bad = true;
          continue;
        }
        number_ = c == '0' ? kNumZero : kNumInt;
        break;
      case kNumZero:
        if (c == '.') {
          number_ = kNumDot;
        } else if (c == 'e' || c == 'E') {
          number_ = kNumExp;
        } else if (isDigit(c)) {
          bad = true;
          continue;
        } else {
          complete = true;
          continue;
        }
        break;
      case kNumInt:
        if (isDigit(c)) break;
        if (c == '.') {
          number_ = kNumDot;
        } else if (c == 'e' || c == 'E') {
          number_ = kNumExp;
        } else {
          complete = true;
          continue;
        }
        break;
      case kNumDot:
        if (!isDigit(c)) {
          bad = true;
          continue;
        }
        number_ = kNumFrac;
        break;
      case kNumFrac:
        if (isDigit(c)) break;
        if (c == 'e' || c == 'E') {
          number_ = kNumExp;
        } else {
          complete = true;
          continue;
        }
        break;
      case kNumExp:
        if (c == '+' || c == '-') {
          number_ = kNumExpSign;
        } else if (isDigit(c)) {
          number_ = kNumExpDigits;
        } else {
          bad = true;
          continue;
        }
        break;
      case kNumExpSign:
        if (!isDigit(c)) {
          bad = true;
          continue;
        }
        number_ = kNumExpDigits;
        break;
      case kNumExpDigits:
        if (!isDigit(c)) {
          complete = true;
          continue;
        }
        break;
    }
    ++p;
  }
  text_.append(reinterpret_cast<const char*>(run), static_cast<size_t>(p - run));
  if (bad) {
    failAt(kErrorBadNumber,
           number_ == kNumZero ? "leading zero in a number" : "invalid number", p);
    return end;
  }
  if (text_.size() > maxTokenSize_) {
    failAt(kErrorTooLong, "number too long", p);
    return end;
  }
  // The byte that ended the number is left for the structural states.
  if (complete) emitScalar(text_.c_str(), true);
  return p;
}

}  // namespace webs
