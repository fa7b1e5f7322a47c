// TreeNodeError: an error record of a document reader, a numeric code and a
// message. A code of 0 with an empty message means no error. Plain value,
// copied freely; no lock.
#ifndef CORVANE_DOC_TREE_NODE_ERROR_H_
#define CORVANE_DOC_TREE_NODE_ERROR_H_

#include <string>

class TreeNodeError {
 public:
  TreeNodeError() : code(0) {}
  TreeNodeError(int errorCode, const std::string& errorMessage)
      : code(errorCode), message(errorMessage) {}

  bool isError() const { return code != 0; }

  int code;
  std::string message;
};

#endif  // CORVANE_DOC_TREE_NODE_ERROR_H_
