// Printing of a TreeNode subtree as XML and as JSON text. Both walks follow
// the child, sibling and parent links, so deep documents need no deep stack.
#include "doc/tree_node.h"

namespace webs {

namespace {

void appendXMLEscaped(std::string& out, const std::string& text, bool attribute) {
  size_t plain = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char* entity = nullptr;
    switch (text[i]) {
      case '&': entity = "&amp;"; break;
      case '<': entity = "&lt;"; break;
      case '>': entity = "&gt;"; break;
      case '"': entity = attribute ? "&quot;" : nullptr; break;
      default: break;
    }
    if (!entity) continue;
    out.append(text, plain, i - plain);
    out += entity;
    plain = i + 1;
  }
  out.append(text, plain, std::string::npos);
}

void appendJSONString(std::string& out, const std::string& text) {
  static const char kHex[] = "0123456789abcdef";
  out += '"';
  size_t plain = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out.append(text, plain, i - plain);
    plain = i + 1;
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        out += "\\u00";
        out += kHex[c >> 4];
        out += kHex[c & 0xF];
        break;
    }
  }
  out.append(text, plain, std::string::npos);
  out += '"';
}

enum class JSONForm { kScalar, kObject, kArray };

JSONForm formOf(const TreeNode* node) {
  if (node->isArray()) return JSONForm::kArray;
  if (!node->getFirstChild() && !node->getFirstAttribute() && node->hasValue()) {
    return JSONForm::kScalar;
  }
  return JSONForm::kObject;
}

// Attributes and text print as the first members of an object.
bool hasLeadingMembers(const TreeNode* node) {
  return formOf(node) == JSONForm::kObject &&
         (node->getFirstAttribute() != nullptr || node->hasValue());
}

void closeJSON(std::string& out, const TreeNode* node) {
  out += formOf(node) == JSONForm::kArray ? ']' : '}';
}

}  // namespace

std::string TreeNode::toXML() const {
  std::string out;
  printXML(out);
  return out;
}

std::string TreeNode::toJSON() const {
  std::string out;
  printJSON(out);
  return out;
}

void TreeNode::printXML(std::string& out) const {
  // A root without a name is a document: only its contents print.
  auto tagged = [this](const TreeNode* node) { return node != this || !node->name_.empty(); };
  const TreeNode* node = this;
  for (;;) {
    bool tags = tagged(node);
    if (tags) {
      out += '<';
      out += node->name_;
      for (const Attribute* attr = node->firstAttr_; attr; attr = attr->next) {
        out += ' ';
        out += attr->name;
        out += "=\"";
        appendXMLEscaped(out, attr->value, true);
        out += '"';
      }
    }
    if (!node->firstChild_ && node->value_.empty()) {
      if (tags) out += "/>";
    } else {
      if (tags) out += '>';
      appendXMLEscaped(out, node->value_, false);
      if (node->firstChild_) {
        node = node->firstChild_;
        continue;
      }
      if (tags) {
        out += "</";
        out += node->name_;
        out += '>';
      }
    }
    while (node != this && !node->next_) {
      node = node->parent_;
      if (tagged(node)) {
        out += "</";
        out += node->name_;
        out += '>';
      }
    }
    if (node == this) break;
    node = node->next_;
  }
}

void TreeNode::printJSON(std::string& out) const {
  const TreeNode* node = this;
  for (;;) {
    if (node != this) {
      const TreeNode* parent = node->parent_;
      if (node != parent->firstChild_ || hasLeadingMembers(parent)) out += ',';
      if (!parent->array_) {
        appendJSONString(out, node->name_);
        out += ':';
      }
    }
    JSONForm form = formOf(node);
    if (form == JSONForm::kScalar) {
      if (node->literal_) {
        out += node->value_;
      } else {
        appendJSONString(out, node->value_);
      }
    } else {
      out += form == JSONForm::kArray ? '[' : '{';
      if (form == JSONForm::kObject) {
        bool first = true;
        for (const Attribute* attr = node->firstAttr_; attr; attr = attr->next) {
          if (!first) out += ',';
          first = false;
          appendJSONString(out, "@" + attr->name);
          out += ':';
          appendJSONString(out, attr->value);
        }
        if (node->hasValue_) {
          if (!first) out += ',';
          out += "\"#text\":";
          if (node->literal_) {
            out += node->value_;
          } else {
            appendJSONString(out, node->value_);
          }
        }
      }
      if (node->firstChild_) {
        node = node->firstChild_;
        continue;
      }
      closeJSON(out, node);
    }
    while (node != this && !node->next_) {
      node = node->parent_;
      closeJSON(out, node);
    }
    if (node == this) break;
    node = node->next_;
  }
}

}  // namespace webs
