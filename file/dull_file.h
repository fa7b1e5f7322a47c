// webs::DullFile: the shared object behind every SmartFile that reads one
// location. Owns the location's BufferQueue and its producer; serves
// synchronous reads by moving the queue to the reader's position, and runs
// asynchronous reads as ThreadEngine tasks (this file as sender) under ids
// of the process-wide request table.
//
// Owned by DullFileManager (created, shared, destroyed there). Called from
// the callers' threads (reads, size, close) and from engine executors
// (asynchronous reads). Locks, in this order:
//  - the read lock (the Semaphore base): held for a whole synchronous or
//    asynchronous read, around close() by the manager, and around the
//    first-data wait of getSize(); so at most one read runs on the queue;
//  - referenceLock: references, referenceCount and reader;
//  - the request lock (process-wide, alone): the request table and the
//    pin/finish marks of its records;
//  - taskLock, a leaf: the count of read tasks handed to the engine.
#ifndef CORVANE_FILE_DULL_FILE_H_
#define CORVANE_FILE_DULL_FILE_H_

#include <atomic>
#include <list>
#include <string>

#include "buffer/buffer_queue.h"
#include "source/file_request.h"
#include "thread/semaphore.h"
#include "thread/task.h"

namespace webs {

class SmartFile;

typedef void (*SmartFileCallback)(int reqID, void* userdata, int status, int bytes);

// Statuses reported to asynchronous-read callbacks.
enum AsyncReadStatus_E {
  ASYNC_READ_FAILED = -1,
  ASYNC_READ_DONE = 1,
  ASYNC_READ_CANCELLED = 3,
  ASYNC_READ_EOF = 4,
};

// One accepted asynchronous read. Lives in its table slot from readAsync
// until the task has reported and no cancelRead still needs it.
struct ReadRequestRecord {
  char* buf;
  unsigned long size;
  long long position;
  SmartFileCallback callback;
  void* userdata;
  SmartFile* file;
  std::atomic<bool> cancelled{false};
  class DullFile* dull;
  int reqID;
  // Request lock: a cancelRead is using the record (its second report);
  // the task has ended while pinned, so cancelRead frees it.
  int pins = 0;
  bool finished = false;
};

class DullFile : public util::Semaphore {
 public:
  static constexpr int kMaxRequests = 512;  // ids 1..511

  explicit DullFile(int bufferSize);
  ~DullFile() override;

  bool open(const std::string& location);
  void reference(SmartFile* file);
  void dereference(SmartFile* file);
  int referenceNumber();

  // REQUIRES: the read lock held.
  int read(char* buf, unsigned long size, long long position, unsigned long* readSize,
           SmartFile* file);
  int readAsync(char* buf, unsigned long size, long long position, SmartFileCallback callback,
                void* userdata, int* reqID, SmartFile* file);
  int cancelRead(int reqID, SmartFile* file);

  // Both block until the producer delivered its first data or failed.
  bool randomAccessable();
  long long getSize();

  void volatileContent();
  bool isVolatile();
  bool equalTo(const std::string& location) const { return url == location; }
  void resetError();
  long long getMiniBufferSeq();
  int getBufferSize();
  int getBufferedSize(long long position);
  FileRequest* getRequest() { return request; }
  // Withdraws queued reads, releases the queue and the producer.
  void close();
  // Withdraws the queued asynchronous reads and waits until no read task of
  // this file is left running, so the file can be destroyed. REQUIRES: no
  // SmartFile references the file; the read lock not held (running tasks
  // need it to finish).
  void drainRequests();
  void dumpDebugInfo();
  const std::string& location() const { return url; }

  // Outstanding asynchronous reads of the process (for tests and tools).
  static int pendingRequestCount();

 private:
  static void readTask(void* arg, util::TEngineEvent_E event);
  static void freeRecord(ReadRequestRecord* record);  // REQUIRES: request lock held
  long long waitForContentSize(int logLevel);

  std::string url;
  int referenceCount;  // the design's referenceNumber
  std::list<SmartFile*> references;
  util::Semaphore referenceLock;
  SmartFile* reader;
  FileRequest* request;
  util::BufferQueue rbuffer;

  // Read tasks handed to the engine and not yet ended (leaf lock).
  util::Semaphore taskLock;
  int outstandingTasks = 0;

  static ReadRequestRecord* requestTable[kMaxRequests];
  // Never destroyed: a task may still free its record under it after the
  // client's last callback returned, when the process is already exiting.
  static util::Semaphore& requestLock();
};

}  // namespace webs

#endif  // CORVANE_FILE_DULL_FILE_H_
