// util::StreamSink: the side of a BufferQueue that a producer writes into.
//
// A producer delivers the bytes of one connection with streamIn(), tagged
// with the connection's generation number (`version`, chosen by the queue
// when it started the connection), and reports what happens to the
// connection with notifyStreamException(event).
#ifndef CORVANE_BUFFER_STREAM_SINK_H_
#define CORVANE_BUFFER_STREAM_SINK_H_

namespace util {

enum StreamEvent_E {
  EVENT_STREAM_NORMAL = 0,         // started; size and seekability known
  EVENT_STREAM_ERROR = 1,          // the connection failed
  EVENT_STREAM_DEAD = 2,           // died without an error answer
  EVENT_STREAM_PARTIAL_END = 3,    // delivered all it was asked for
  EVENT_STREAM_TIMEOUT = 4,        // the transfer timed out
  EVENT_STREAM_NOT_FOUND = 5,      // the server has no such file
  EVENT_STREAM_NOT_AVAILABLE = 6,  // the server refuses service
  EVENT_STREAM_CANCEL = 7,         // the producer was stopped
};

class StreamSink {
 public:
  virtual ~StreamSink() = default;
  // One chunk of generation `version`; a chunk of size 0 is allowed. True
  // when the producer should go on, false when it must stop this connection.
  virtual bool streamIn(void* data, unsigned long size, int version) = 0;
  // Where the producer may read its next chunk of up to `size` bytes
  // directly, sparing a copy; it then hands the chunk over with
  // streamIn(place, got, version) as usual, before asking for another place.
  // Null when it must use its own buffer (the default).
  virtual void* directRoom(unsigned long size, int version) {
    (void)size;
    (void)version;
    return nullptr;
  }
  virtual void notifyStreamException(int event) = 0;
};

}  // namespace util

#endif  // CORVANE_BUFFER_STREAM_SINK_H_
