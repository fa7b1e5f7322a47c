// LocalFileRequest: the producer of a file of the local file system. A
// restartable reader thread (`thread`, routine perform) pushes the file from
// `from` into the sink in 16384-byte chunks, each with the generation number
// of its start. The file is read two chunks at a time (one system call per
// 32 KiB: on a page-cached file the call costs about as much as the copy of
// 16 KiB), straight into the sink's write block when the sink offers room
// for both (directRoom), else into the thread's own buffer; the second chunk
// is handed over in place when the sink offers the room it already lies in,
// else read again from the file.
//
// Owned by a DullFile. Called by the queue's worker, reconnection task or
// monitor (start/stop), by its own reader thread (read), and by the closing
// thread (release, destruction). The object's own lock (its Semaphore base)
// guards the file, count, version, the read-ahead and the start/stop state,
// and is held across each chunk's streamIn call, so a stop waits for the
// chunk in progress.
// `stopped`, `reading` and `fileSize` are also read without the lock (the
// end-of-run event, the size query), hence atomics.
#ifndef CORVANE_SOURCE_LOCAL_FILE_REQUEST_H_
#define CORVANE_SOURCE_LOCAL_FILE_REQUEST_H_

#include <pthread.h>

#include <atomic>
#include <string>

#include "source/file_request.h"
#include "thread/semaphore.h"
#include "thread/thread_object.h"

class LocalFileRequest : public FileRequest, public util::Semaphore {
 public:
  static constexpr unsigned long kChunkSize = 16384;

  explicit LocalFileRequest(std::string const& path);
  ~LocalFileRequest() override;

  void release() override;
  // Starts the reader thread at `from`. -1 with no sink or while a run is
  // still delivering; 0 otherwise, also when the file cannot be reopened.
  int startStreaming(int version, long long from, long long count) override;
  int stopStreaming() override;
  bool isRandomAccess() override { return true; }
  long long getContentSize() override { return fileSize.load(std::memory_order_relaxed); }
  void setBreak() override {}
  bool getStopWait() override { return false; }
  void setStopWait() override {}
  int getRequestType() override { return 0; }
  bool initialize() override;

  // One chunk of at most `size` bytes into the sink: the byte count, or -1
  // when the run must end (stop requested, end of file, chunk refused).
  // `buffer` holds 2 * size bytes: the thread's own place for a read.
  int read(char* buffer, unsigned long size, int version);
  // The partial-end event, unless the run was stopped or refused.
  void notifyPerformEnd();

  static void* perform(void* self);

 private:
  bool openStream();   // REQUIRES: lock held
  void closeStream();  // REQUIRES: lock held; release() without taking it
  // Reads up to `size` bytes at file offset `at` into `place`, for as long
  // as the file gives bytes; fewer only at the end of the file (or on an
  // error, taken as the end). REQUIRES: lock held.
  unsigned long readFile(char* place, unsigned long size, long long at);

  // The open file; closed with the object, after the reader thread (the
  // thread object is destroyed first) has left.
  struct File {
    int fd = -1;
    ~File();
  };

  File file;
  long long filePos = 0;    // file offset of the next byte read from the file
  // Bytes read from the file and not yet delivered: aheadLen bytes at ahead,
  // in the sink's room (aheadInRoom) or in the reader thread's buffer.
  char* ahead = nullptr;
  unsigned long aheadLen = 0;
  bool aheadInRoom = false;
  bool fileEnd = false;     // the file gave fewer bytes than asked: no more
  bool atEof = false;       // a chunk came out short of the file's end
  util::ThreadObject thread;
  long long count;
  std::atomic<long long> fileSize;
  int version;
  std::atomic<bool> stopped;

  // A run of perform is between its start and its end event. The thread
  // object clears its own run request before every run, so its needExit()
  // cannot tell a running reader from a stopped one; these fields do.
  std::atomic<bool> reading{false};
  pthread_t readerThread{};  // valid while `reading`; guarded by the lock
  // Starts requested and runs that took one up, under the lock. A stop that
  // comes before the thread took its request up drops it (the thread object
  // forgets a pending request on stop), so the stop retires it here; a run
  // of perform that finds no request left does nothing.
  long long startsRequested = 0;
  long long startsTaken = 0;
};

#endif  // CORVANE_SOURCE_LOCAL_FILE_REQUEST_H_
