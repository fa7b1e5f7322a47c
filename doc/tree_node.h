// webs::TreeNode: one element of a parsed document (XML or JSON).
//
// A node has a name, an optional leaf value, ordered attributes and ordered
// children, and a link to its parent. Children and attributes are kept in
// intrusive singly linked lists, so building a tree costs no container
// growth. A tree belongs to its root node: every node and attribute record
// below the root comes from the root's NodePool and goes back there on
// clear(), to be reused by the next document the root holds; the records are
// released all at once when the root is destroyed. Nodes are never deleted
// one by one and never outlive their root.
//
// Threads: a tree has no lock. It is built and read by one thread at a time
// (the transfer thread while a response arrives, then its owner); distinct
// trees are independent, since each root has its own pool.
//
// Traversals (clear, printing) walk the parent links instead of recursing,
// so the C++ stack does not grow with the depth of a document.
#ifndef CORVANE_DOC_TREE_NODE_H_
#define CORVANE_DOC_TREE_NODE_H_

#include <string>

namespace webs {

class NodePool;

class TreeNode {
 public:
  // One attribute record; pooled like the nodes.
  struct Attribute {
    std::string name;
    std::string value;
    Attribute* next = nullptr;
  };

  // A root node (no parent) with an empty name.
  TreeNode();
  explicit TreeNode(const std::string& name);
  virtual ~TreeNode();

  TreeNode(const TreeNode&) = delete;
  TreeNode& operator=(const TreeNode&) = delete;

  // Empties the node: its children and attributes return to the pool, the
  // value is dropped and the node becomes a plain element again. The name
  // and the place in the parent are kept.
  virtual void clear();

  // Appends a child element and returns it (owned by the tree).
  TreeNode* createSubEntry(const std::string& name);
  TreeNode* createSubEntry(const char* name, size_t nameSize);
  // Appends an attribute (later ones with the same name are kept as well;
  // lookups find the first). Returns this node.
  TreeNode* createSubAttribute(const std::string& name, const std::string& value);

  TreeNode* getParent() const { return parent_; }
  const std::string& getName() const { return name_; }
  void setName(const std::string& name) { name_ = name; }

  // The leaf value; empty when none was set (see hasValue()).
  const std::string& getValue() const { return value_; }
  // Replaces the leaf value. `literal` marks a JSON number, true, false or
  // null: JSON printing writes such a value without quotes; text (XML
  // character data, JSON strings) passes false.
  void setLeafValue(const std::string& value, bool literal);
  void setLeafValue(const char* value, size_t size, bool literal);
  // Appends to the leaf value (text that arrives in pieces).
  void appendLeafValue(const char* text, size_t size);
  bool hasValue() const { return hasValue_; }
  bool isLiteral() const { return literal_; }

  // A node made from a JSON array prints its children as array elements.
  void setArray(bool array) { array_ = array; }
  bool isArray() const { return array_; }

  // Children in document order.
  TreeNode* getFirstChild() const { return firstChild_; }
  TreeNode* getNextSibling() const { return next_; }
  int getChildCount() const { return childCount_; }
  const Attribute* getFirstAttribute() const { return firstAttr_; }
  int getAttributeCount() const { return attrCount_; }

  // The `index`-th child named `name` (0 = first), or null.
  TreeNode* findSubEntry(const std::string& name, int index = 0) const;
  // The `index`-th child whatever its name, or null.
  TreeNode* getChild(int index) const;
  // The first attribute named `name`, or null.
  const std::string* findAttribute(const std::string& name) const;
  // Same, with an empty string for a missing attribute.
  const std::string& getAttribute(const std::string& name) const;

  // Follows a path of child names separated by '/'. A step may carry an
  // index, "item[2]" (the third child named item); a step "[2]" takes the
  // third child whatever its name. An empty path is this node. Null when a
  // step is missing or malformed.
  TreeNode* lookup(const std::string& path) const;
  // The value at `path`: the leaf value of the node it names, or, when the
  // last step is "@name", that attribute of the node before it. Null when
  // there is no such node or attribute.
  const std::string* lookupValue(const std::string& path) const;

  // The subtree as XML text with &, <, > (and " in attributes) escaped. A
  // node with an empty name (a document root) prints only its children.
  std::string toXML() const;
  // The subtree as compact JSON text. Objects print their members, arrays
  // their elements, leaves their value (quoted and escaped unless literal).
  // A node with attributes or children and a value prints as an object
  // with members "@name" for the attributes and "#text" for the value.
  std::string toJSON() const;
  void printXML(std::string& out) const;
  void printJSON(std::string& out) const;

  // Number of node records this tree's pool has made (a pool statistic for
  // tests and diagnostics); 0 before the first child.
  size_t getPoolNodeCount() const;

 private:
  friend class NodePool;

  void releaseContents();
  NodePool* ownPool();
  void appendChild(TreeNode* child);

  std::string name_;
  std::string value_;
  TreeNode* parent_ = nullptr;
  TreeNode* firstChild_ = nullptr;
  TreeNode* lastChild_ = nullptr;
  TreeNode* next_ = nullptr;
  Attribute* firstAttr_ = nullptr;
  Attribute* lastAttr_ = nullptr;
  int childCount_ = 0;
  int attrCount_ = 0;
  bool hasValue_ = false;
  bool literal_ = false;
  bool array_ = false;
  bool ownsPool_ = false;
  // The pool of the tree this node is in; made by the root on first need.
  NodePool* pool_ = nullptr;
};

}  // namespace webs

#endif  // CORVANE_DOC_TREE_NODE_H_
