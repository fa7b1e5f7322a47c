#include "doc/json_reader.h"

#include <cstring>

namespace webs {

constexpr char JSONReader::kArrayItemName[];

JSONReader::JSONReader(int maxDepth) : parser_(this, maxDepth), current_(this) {}

JSONReader::~JSONReader() = default;

int JSONReader::streamIn(const char* data, int size, int isLast) {
  return parser_.streamIn(data, size, isLast);
}

void JSONReader::initialize() { initialised_ = true; }

void JSONReader::clear() {
  TreeNode::clear();
  readyRead();
}

void JSONReader::readyRead() {
  parser_.reset();
  current_ = this;
  depth_ = 0;
}

void JSONReader::readNodeBegin(const char* name, bool flag) {
  if (depth_++ == 0) {
    // The top value is the reader's own root node.
    setArray(flag);
    return;
  }
  TreeNode* child;
  if (current_->isArray()) {
    child = current_->createSubEntry(kArrayItemName, sizeof(kArrayItemName) - 1);
  } else if (name == parser_.key().c_str()) {
    // From our parser: take the key at full length (it may hold NUL bytes).
    child = current_->createSubEntry(parser_.key());
  } else {
    child = current_->createSubEntry(name, name ? std::strlen(name) : 0);
  }
  child->setArray(flag);
  current_ = child;
}

void JSONReader::readNodeValue(const char* text, bool flag) {
  if (depth_ == 0 || !text) return;
  if (text == parser_.text().c_str()) {
    current_->setLeafValue(parser_.text(), flag);
  } else {
    current_->setLeafValue(text, std::strlen(text), flag);
  }
}

void JSONReader::readNodeEnd(const char* name) {
  if (depth_ == 0) return;
  if (--depth_ > 0) current_ = current_->getParent();
}

std::vector<unsigned char>* JSONReader::getRawData(const std::string& text) {
  rawData_.assign(text.begin(), text.end());
  return &rawData_;
}

}  // namespace webs
