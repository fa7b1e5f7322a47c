#include "doc/node_pool.h"

namespace webs {

size_t NodePool::nextSlabSize(size_t made) {
  // Double with the tree so that a large document needs few slabs, but stay
  // small enough that a short reply does not hold much memory.
  size_t size = made < 16 ? 16 : made;
  return size > 1024 ? 1024 : size;
}

TreeNode* NodePool::takeNode() {
  if (!freeNodes_) {
    size_t count = nextSlabSize(nodeCount_);
    std::unique_ptr<TreeNode[]> slab(new TreeNode[count]);
    for (size_t i = count; i-- > 0;) {
      slab[i].pool_ = this;
      slab[i].next_ = freeNodes_;
      freeNodes_ = &slab[i];
    }
    nodeSlabs_.push_back(std::move(slab));
    nodeCount_ += count;
  }
  TreeNode* node = freeNodes_;
  freeNodes_ = node->next_;
  node->next_ = nullptr;
  return node;
}

void NodePool::giveNode(TreeNode* node) {
  node->name_.clear();
  node->value_.clear();
  node->parent_ = nullptr;
  node->firstChild_ = node->lastChild_ = nullptr;
  node->firstAttr_ = node->lastAttr_ = nullptr;
  node->childCount_ = node->attrCount_ = 0;
  node->hasValue_ = node->literal_ = node->array_ = false;
  node->next_ = freeNodes_;
  freeNodes_ = node;
}

TreeNode::Attribute* NodePool::takeAttribute() {
  if (!freeAttrs_) {
    size_t count = nextSlabSize(attrCount_);
    std::unique_ptr<TreeNode::Attribute[]> slab(new TreeNode::Attribute[count]);
    for (size_t i = count; i-- > 0;) {
      slab[i].next = freeAttrs_;
      freeAttrs_ = &slab[i];
    }
    attrSlabs_.push_back(std::move(slab));
    attrCount_ += count;
  }
  TreeNode::Attribute* attr = freeAttrs_;
  freeAttrs_ = attr->next;
  attr->next = nullptr;
  return attr;
}

void NodePool::giveAttribute(TreeNode::Attribute* attr) {
  attr->name.clear();
  attr->value.clear();
  attr->next = freeAttrs_;
  freeAttrs_ = attr;
}

}  // namespace webs
