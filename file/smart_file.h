// webs::SmartFile: the per-handle reader. Holds one reference on the shared
// DullFile of its location and its own read position; decides what a seek may
// do on a stream that cannot be read at random.
//
// Owned by the handle table of the C interface; called from any caller
// thread and, for newPosMovedByDullFile, from ThreadEngine executors. The own
// lock (Semaphore base) guards position updates in seek;
// newPosMovedByDullFile moves it by compare-and-set (its caller holds the
// DullFile's referenceLock); read moves it under the DullFile's read lock. position and liveflag are atomics because the C interface
// reads the position without any lock and the two paths use different locks.
#ifndef CORVANE_FILE_SMART_FILE_H_
#define CORVANE_FILE_SMART_FILE_H_

#include <atomic>
#include <string>

#include "file/dull_file.h"
#include "source/file_request.h"
#include "thread/semaphore.h"

namespace webs {

class SmartFile : public util::Semaphore {
 public:
  // Seeks on a stream that cannot be read at random may move this far.
  static constexpr long long kNonSeekableRange = 0x100000;

  explicit SmartFile(int bufferSize);
  ~SmartFile() override;

  bool open(const std::string& location);
  int close();
  // 0, -13 at the end of the content (bytes counted), or a failure code.
  int read(char* buf, unsigned long size, unsigned long* readSize);
  int readAsync(char* buf, unsigned long size, SmartFileCallback callback, void* userdata,
                int* reqID);
  void newPosMovedByDullFile(long long oldPos, long long newPos);
  int cancelRead(int reqID);
  // 0; -4 without a file or on a 0 size; -12 when a stream that cannot be
  // read at random cannot get there (*curOffset is written all the same).
  int seek(long long offset, long long* curOffset);
  long long getSize();
  int getBufferSize();
  int getBufferedSize();
  void volatileContent();
  FileRequest* getRequest();
  void cleanupCache();

  long long getPosition() const { return position.load(std::memory_order_relaxed); }
  DullFile* getDullFile() const { return dullFile; }

 private:
  DullFile* dullFile;
  int bufferSize;
  std::atomic<long long> position;
  std::string url;
  long long liveBase;
  std::atomic<bool> liveflag;
};

}  // namespace webs

#endif  // CORVANE_FILE_SMART_FILE_H_
