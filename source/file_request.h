// FileRequest: the producer that fills one BufferQueue with the bytes of one
// location, as the file objects see it.
//
// Owned by the DullFile that made it through FileRequestAdaptor. The queue
// decides when a transfer starts, restarts or stops; the concrete source owns
// the transfer and pushes every chunk and event into `out`. `out` is set once
// by the owner before the first start and read by the source's transfer
// thread afterwards.
#ifndef CORVANE_SOURCE_FILE_REQUEST_H_
#define CORVANE_SOURCE_FILE_REQUEST_H_

#include <string>

#include "buffer/buffer_queue_producer.h"
#include "buffer/stream_sink.h"

class FileRequest : public util::BufferQueueProducer {
 public:
  explicit FileRequest(std::string const& location);
  ~FileRequest() override;

  FileRequest(const FileRequest&) = delete;
  FileRequest& operator=(const FileRequest&) = delete;

  void setOut(util::StreamSink* sink) override;
  void resetOut() override;

 protected:
  std::string location;
  util::StreamSink* out;
};

#endif  // CORVANE_SOURCE_FILE_REQUEST_H_
