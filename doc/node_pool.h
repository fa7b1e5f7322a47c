// webs::NodePool: the record store of one document tree.
//
// Owned by the tree's root TreeNode, which makes it when the first child is
// created and deletes it with itself. Node and attribute records are made in
// slabs that grow from 16 to 1024 records; a record handed back goes onto a
// free list (keeping its strings' capacity) and is reused before any new
// slab is made. Records are destroyed only with the pool, slab by slab.
//
// Threads: no lock; used only by the thread that is working on its tree.
#ifndef CORVANE_DOC_NODE_POOL_H_
#define CORVANE_DOC_NODE_POOL_H_

#include <cstddef>
#include <memory>
#include <vector>

#include "doc/tree_node.h"

namespace webs {

class NodePool {
 public:
  NodePool() = default;
  ~NodePool() = default;

  NodePool(const NodePool&) = delete;
  NodePool& operator=(const NodePool&) = delete;

  // A reset node record belonging to this pool.
  TreeNode* takeNode();
  // REQUIRES: `node` came from takeNode() and its children and attributes
  // were handed back already.
  void giveNode(TreeNode* node);
  TreeNode::Attribute* takeAttribute();
  void giveAttribute(TreeNode::Attribute* attr);

  size_t nodeCount() const { return nodeCount_; }
  size_t attributeCount() const { return attrCount_; }

 private:
  static size_t nextSlabSize(size_t made);

  std::vector<std::unique_ptr<TreeNode[]>> nodeSlabs_;
  std::vector<std::unique_ptr<TreeNode::Attribute[]>> attrSlabs_;
  // Free records are linked through their `next` fields.
  TreeNode* freeNodes_ = nullptr;
  TreeNode::Attribute* freeAttrs_ = nullptr;
  size_t nodeCount_ = 0;
  size_t attrCount_ = 0;
};

}  // namespace webs

#endif  // CORVANE_DOC_NODE_POOL_H_
