// webs::Requestor: the receiving end of a webs::MethodRequest transfer.
//
// MethodRequest hands every body chunk to receive() on the transfer's thread;
// the result goes back to libcurl, so anything other than `size` ends the
// transfer with a write error. Implemented by the HTTP file source (file
// data) and by MethodResponse (structured replies). The virtual slots keep
// this order: receive, readyReceive, finishReceive, destructor.
#ifndef CORVANE_HTTP_REQUESTOR_H_
#define CORVANE_HTTP_REQUESTOR_H_

namespace webs {

class Requestor {
 public:
  // `curl` is the transfer's easy handle, `version` the generation number
  // given to MethodRequest::executeGet. Returns the bytes taken.
  virtual int receive(void* data, int size, void* curl, int version) = 0;
  virtual void readyReceive() = 0;
  virtual void finishReceive() = 0;
  virtual ~Requestor() {}
};

}  // namespace webs

#endif  // CORVANE_HTTP_REQUESTOR_H_
