#include "doc/tree_node.h"


#include "doc/node_pool.h"
#include "thread/init_order.h"

namespace webs {

namespace {

// What getAttribute() returns for a missing attribute. A load-time object, so
// it gets its rank among the library's process-wide objects.
const std::string kNoText CV_INIT_ORDER(CV_INIT_TREE_NODE_STATICS);

// Splits "name[3]" into name and index; "name" has index 0 and "[3]" an
// empty name (any child). False for a malformed step.
bool parseStep(const std::string& path, size_t begin, size_t end, std::string& name,
               int& index, bool& anyName) {
  size_t bracket = path.find('[', begin);
  if (bracket == std::string::npos || bracket >= end) {
    name.assign(path, begin, end - begin);
    index = 0;
    anyName = false;
    return !name.empty();
  }
  if (path[end - 1] != ']' || end - bracket < 3) return false;
  long value = 0;
  for (size_t i = bracket + 1; i + 1 < end; ++i) {
    char c = path[i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
    if (value > 1000000000L) return false;
  }
  name.assign(path, begin, bracket - begin);
  anyName = name.empty();
  index = static_cast<int>(value);
  return true;
}

}  // namespace

TreeNode::TreeNode() = default;

TreeNode::TreeNode(const std::string& name) : name_(name) {}

TreeNode::~TreeNode() {
  // Only a root owns its pool; deleting the pool destroys every record of
  // the tree at once, so nothing is freed node by node.
  if (ownsPool_) delete pool_;
}

NodePool* TreeNode::ownPool() {
  if (!pool_) {
    pool_ = new NodePool();
    ownsPool_ = true;
  }
  return pool_;
}

void TreeNode::clear() {
  releaseContents();
  value_.clear();
  hasValue_ = false;
  literal_ = false;
  array_ = false;
}

void TreeNode::releaseContents() {
  NodePool* pool = pool_;
  if (!pool) return;
  // Post-order walk over the parent links: a node goes back to the pool once
  // its last child has, so the walk needs no stack of its own.
  TreeNode* node = firstChild_;
  while (node) {
    if (node->firstChild_) {
      node = node->firstChild_;
      continue;
    }
    TreeNode* next = node->next_;
    TreeNode* parent = node->parent_;
    for (Attribute* attr = node->firstAttr_; attr;) {
      Attribute* following = attr->next;
      pool->giveAttribute(attr);
      attr = following;
    }
    pool->giveNode(node);
    if (next) {
      node = next;
    } else if (parent == this) {
      break;
    } else {
      parent->firstChild_ = nullptr;
      node = parent;
    }
  }
  for (Attribute* attr = firstAttr_; attr;) {
    Attribute* following = attr->next;
    pool->giveAttribute(attr);
    attr = following;
  }
  firstChild_ = lastChild_ = nullptr;
  firstAttr_ = lastAttr_ = nullptr;
  childCount_ = attrCount_ = 0;
}

void TreeNode::appendChild(TreeNode* child) {
  child->parent_ = this;
  if (lastChild_) {
    lastChild_->next_ = child;
  } else {
    firstChild_ = child;
  }
  lastChild_ = child;
  ++childCount_;
}

TreeNode* TreeNode::createSubEntry(const std::string& name) {
  return createSubEntry(name.data(), name.size());
}

TreeNode* TreeNode::createSubEntry(const char* name, size_t nameSize) {
  TreeNode* child = ownPool()->takeNode();
  child->name_.assign(name, nameSize);
  appendChild(child);
  return child;
}

TreeNode* TreeNode::createSubAttribute(const std::string& name, const std::string& value) {
  Attribute* attr = ownPool()->takeAttribute();
  attr->name = name;
  attr->value = value;
  if (lastAttr_) {
    lastAttr_->next = attr;
  } else {
    firstAttr_ = attr;
  }
  lastAttr_ = attr;
  ++attrCount_;
  return this;
}

void TreeNode::setLeafValue(const std::string& value, bool literal) {
  setLeafValue(value.data(), value.size(), literal);
}

void TreeNode::setLeafValue(const char* value, size_t size, bool literal) {
  value_.assign(value, size);
  hasValue_ = true;
  literal_ = literal;
}

void TreeNode::appendLeafValue(const char* text, size_t size) {
  value_.append(text, size);
  hasValue_ = true;
}

TreeNode* TreeNode::findSubEntry(const std::string& name, int index) const {
  for (TreeNode* child = firstChild_; child; child = child->next_) {
    if (child->name_ == name && index-- == 0) return child;
  }
  return nullptr;
}

TreeNode* TreeNode::getChild(int index) const {
  if (index < 0) return nullptr;
  TreeNode* child = firstChild_;
  while (child && index-- > 0) child = child->next_;
  return child;
}

const std::string* TreeNode::findAttribute(const std::string& name) const {
  for (const Attribute* attr = firstAttr_; attr; attr = attr->next) {
    if (attr->name == name) return &attr->value;
  }
  return nullptr;
}

const std::string& TreeNode::getAttribute(const std::string& name) const {
  const std::string* value = findAttribute(name);
  return value ? *value : kNoText;
}

TreeNode* TreeNode::lookup(const std::string& path) const {
  const TreeNode* node = this;
  size_t begin = 0;
  std::string name;
  while (node && begin < path.size()) {
    size_t end = path.find('/', begin);
    if (end == std::string::npos) end = path.size();
    int index = 0;
    bool anyName = false;
    if (!parseStep(path, begin, end, name, index, anyName)) return nullptr;
    node = anyName ? node->getChild(index) : node->findSubEntry(name, index);
    begin = end + 1;
    // A trailing '/' names nothing.
    if (end + 1 == path.size()) return nullptr;
  }
  return const_cast<TreeNode*>(node);
}

const std::string* TreeNode::lookupValue(const std::string& path) const {
  size_t slash = path.rfind('/');
  size_t last = slash == std::string::npos ? 0 : slash + 1;
  if (last < path.size() && path[last] == '@') {
    const TreeNode* owner = last == 0 ? this : lookup(path.substr(0, last - 1));
    return owner ? owner->findAttribute(path.substr(last + 1)) : nullptr;
  }
  const TreeNode* node = lookup(path);
  return node && node->hasValue_ ? &node->value_ : nullptr;
}

size_t TreeNode::getPoolNodeCount() const { return pool_ ? pool_->nodeCount() : 0; }

}  // namespace webs
