// webs::MethodResponse: the receiving end of a transfer whose body is a
// structured document (JSON or XML).
//
// A MethodRequest hands it the body piece by piece; each piece goes to the
// TreeReader set with initialize() or switchReader() (not owned: the
// response never deletes it), and after the last piece processResult() lets
// a subclass read the tree and set the success flag and the error strings.
// Per transfer: readyReceive(), any number of receive(), one
// finishReceive(). The reader must be set before readyReceive(): the calls
// of a transfer use it without a null test.
//
// Threads: no lock. The transfer calls arrive on the thread that runs the
// transfer; the owner reads the result after the transfer has returned.
#ifndef CORVANE_DOC_METHOD_RESPONSE_H_
#define CORVANE_DOC_METHOD_RESPONSE_H_

#include <string>

#include "doc/tree_reader.h"
#include "http/requestor.h"

namespace webs {

class MethodResponse : public Requestor {
 public:
  MethodResponse();

  // Feeds one piece of the body to the reader; returns `size` (all taken).
  int receive(void* data, int size, void* curl, int version) override;
  // Before a transfer: clears the reader and the result, then readies the
  // reader.
  void readyReceive() override;
  // After the last piece: ends the document, then processResult().
  void finishReceive() override;
  ~MethodResponse() override;
  // Reads the parsed tree; the base class does nothing.
  virtual void processResult();

  // Stores `reader` and, if it is not null, initialises it.
  void initialize(TreeReader* reader);
  // Stores `reader` without initialising it.
  void switchReader(TreeReader* reader);
  // The result structure of a subclass; the base class has none.
  void* findResultStruct();

  bool isSuccess();
  std::string& getErrorCode();
  std::string& getErrorMsg();

 protected:
  TreeReader* reader;
  bool success;
  std::string errorCode;
  std::string errorMsg;
};

}  // namespace webs

#endif  // CORVANE_DOC_METHOD_RESPONSE_H_
