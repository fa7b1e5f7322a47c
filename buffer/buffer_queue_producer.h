// util::BufferQueueProducer: the producer of a BufferQueue as the queue sees
// it (implemented by FileRequest and its sources). The virtual slot order is
// part of the library's binary interface: keep it.
#ifndef CORVANE_BUFFER_BUFFER_QUEUE_PRODUCER_H_
#define CORVANE_BUFFER_BUFFER_QUEUE_PRODUCER_H_

#include "buffer/stream_sink.h"

namespace util {

class BufferQueueProducer {
 public:
  // Stores the sink every chunk and event goes to (not owned).
  virtual void setOut(StreamSink* out) = 0;
  // Frees the transfer's resources without destroying the object.
  virtual void release() = 0;
  // Starts delivering from `from`; `count` bytes wanted, 0 = to the end.
  // Every streamIn carries `version`. 0 when started, -1 when refused.
  virtual int startStreaming(int version, long long from, long long count) = 0;
  virtual int stopStreaming() = 0;
  virtual bool isRandomAccess() = 0;
  virtual long long getContentSize() = 0;
  virtual ~BufferQueueProducer() = default;
  // Asks a running transfer to break off at once.
  virtual void setBreak() = 0;
  virtual bool getStopWait() = 0;
  virtual void setStopWait() = 0;
  // 0 local, 1 HTTP.
  virtual int getRequestType() = 0;
  virtual bool initialize() = 0;
  virtual void resetOut() = 0;
};

}  // namespace util

#endif  // CORVANE_BUFFER_BUFFER_QUEUE_PRODUCER_H_
