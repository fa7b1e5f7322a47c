// util::BufferQueue: the stream buffer between one producer and the readers
// of one shared file.
//
// Owned by the shared file object (DullFile), which sets its producer at
// initialize() and destroys it at close. The producer's threads call the sink
// (streamIn, notifyStreamException); readers call read/seek/breakRead; the
// feeding worker (a ThreadObject) starts connections; engine executors run
// the reconnection task; the process-wide FeedMonitor thread checks for
// silence.
//
// The queue keeps a fixed set of 32768-byte blocks, each tagged with the
// stream offset of its first byte, ordered by offset. Block beginnings are
// always multiples of the block size, so two used blocks never overlap.
// Every connection gets a new version; chunks of another version are refused.
//
// Locks, taken in this order: the queue lock (the Semaphore base) for the
// whole of read and seek; streamLock_ for every field below marked [S] (the
// blocks, the offsets, the flags of both sides; readers and the writer wait
// on it); statusLock_ only around writes of streamStatus_. reconnectLock_ is
// taken alone by the reconnection task; taskLock_ is a leaf lock for the count
// of scheduled tasks (it is taken inside the engine's queue lock when a task
// is cancelled). Fields read without a lock are atomics.
//
// Block bytes: the reader copies out of its block with streamLock_ let go,
// after pinning the block (copyBlock_); it copies only bytes below the
// payload it saw under the lock, and the writer only appends above it. A
// pinned block is never rebased: the writer picks another block or waits for
// the copy to end (awaitReaderCopy) before it decides anything.
#ifndef CORVANE_BUFFER_BUFFER_QUEUE_H_
#define CORVANE_BUFFER_BUFFER_QUEUE_H_

#include <atomic>
#include <list>

#include "buffer/buffer_block.h"
#include "buffer/buffer_block_pool.h"
#include "buffer/buffer_queue_producer.h"
#include "buffer/stream_sink.h"
#include "diag/dump_file.h"
#include "thread/semaphore.h"
#include "thread/task.h"
#include "thread/thread_object.h"

namespace util {

class BufferQueue : public Semaphore, public StreamSink {
 public:
  typedef std::list<BufferBlock*>::iterator BlockIt;

  static constexpr long long kBlockSize = 32768;
  // The largest buffer a queue takes: 256 MiB.
  static constexpr long long kMaxBlocks = 8192;
  // A reader this close ahead of the write point is reached by the running
  // connection soon enough: no new connection is worth its start-up cost.
  static constexpr long long kNearDistance = 65537;
  // A queue of at least this many blocks leaves a sleeping reader asleep
  // for a quarter of them more while the writer delivers at memory speed
  // (see streamIn and wakePoint).
  static constexpr long long kWakeMarginMinBlocks = 8;
  // Chunks this close together (ns) are delivered at memory speed.
  static constexpr long long kFastChunkGapNs = 50000;

  // Stream statuses.
  static constexpr int STREAM_IDLE = -1;
  static constexpr int STREAM_NORMAL = 0;
  static constexpr int STREAM_END = 1;
  static constexpr int STREAM_ERROR = 2;
  static constexpr int STREAM_CANCELED = 3;
  static constexpr int STREAM_NOT_FOUND = 4;
  static constexpr int STREAM_TIMEOUT = 5;
  static constexpr int STREAM_NOT_AVAILABLE = 6;
  static constexpr int STREAM_RESETTING = 7;

  // Result codes of read().
  static constexpr int READ_OK = 0;
  static constexpr int READ_FINISHED = -1;
  static constexpr int SMFR_FAILED = -4;
  static constexpr int READ_TIMEOUT = -6;
  static constexpr int SMFR_EOF = -13;
  static constexpr int READ_NOT_AVAILABLE = -17;
  static constexpr int READ_NOT_FOUND = -21;

  // The feeding monitor checks every kMonitorPeriodMs (real time, its own
  // timed wait); a reader waiting through kMonitorStallChecks checks with no
  // sign of life from the producer gets a new connection; after
  // kMonitorMaxSilentRestarts such restarts without a byte the stream ends
  // with status 6.
  static constexpr int kMonitorPeriodMs = 100;
  static constexpr int kMonitorStallChecks = 4;
  static constexpr int kMonitorMaxSilentRestarts = 3;
  // A connection that ended before its first byte is tried again after
  // kEmptyRetryBaseMs, doubled for each further empty one in a row.
  static constexpr int kEmptyRetryBaseMs = 100;
  // How often a stop is repeated while the worker's run has not left the
  // producer (see stopProducerRun).
  static constexpr int kStopRetryMs = 10;
  static constexpr int kStopSpinUs = 300;  // stopProducerRun: yield, then sleep

  explicit BufferQueue(int bufferSize);
  ~BufferQueue() override;

  bool initialize(BufferQueueProducer* p);

  // Stream sink (producer threads).
  bool streamIn(void* data, unsigned long size, int version) override;
  void notifyStreamException(int event) override;
  // A place in the write block while it has room for the whole chunk and
  // the stream runs normally; the producer fills it without the lock.
  void* directRoom(unsigned long size, int version) override;

  // Reading side (reader threads). read blocks until data, a final status
  // or breakRead.
  // Given `breaksSeen` (a breakCount() taken earlier), a breakRead made
  // since then breaks the read too when it came before the read began: a
  // reader that chose to read before a close broke it must not start
  // waiting afterwards.
  static constexpr unsigned long kNoBreakCheck = ~0UL;
  int read(char* buffer, unsigned long size, unsigned long* got,
           unsigned long breaksSeen = kNoBreakCheck);
  unsigned long breakCount() const { return breaks_.load(); }
  bool seek(long long offset, long long* newOffset);
  void breakRead();
  long long getBufferedSize(long long offset);
  long long getMiniBlockOffset();
  static long long alignLeft(long long offset);
  void resetErrorStatus();

  // Ends streaming for good: status 3, the producer stopped, the worker and
  // monitor threads ended, no reconnection task left. Idempotent.
  void release();

  void resetStreaming();  // REQUIRES: streamLock_ held
  bool cacheHeadToCheck(unsigned char* data, unsigned long size);
  void setVolContent() { volatileContent_ = true; }
  bool isVolatile() const { return volatileContent_; }
  bool isResetStream() const { return resetRequested_; }
  bool isRandomAccess() const { return seekable_; }

  // Feeding worker and reconnection.
  static void* workerRun(void* queue);
  void workBegin();
  void startWorker();
  void stopWorker();
  // Stops the producer's connection and returns once the worker's run has
  // left the producer. Blocks.
  void stopProducerRun();
  bool needExit();  // REQUIRES: streamLock_ held (or no writer running)
  static void reconnectTask(void* queue, TEngineEvent_E event);
  void dumpBuffer(bool unused);

  // Feeding monitor.
  void startMonitorFeeding();
  void fillMonitor();
  void feedManually();  // REQUIRES: streamLock_ held

  // Observers for tests and the shared file object.
  int getStreamStatus() const { return streamStatus_.load(std::memory_order_relaxed); }
  int getVersion() const { return version_.load(std::memory_order_relaxed); }
  long long getContentSize() const { return contentSize_.load(std::memory_order_relaxed); }
  long long getReadOffset() const { return readOffset_.load(std::memory_order_relaxed); }
  long long getBlockCount() const { return blockCount_; }
  long long getTotalCapacity() const { return totalCapacity_; }
  int getRetryCount() const { return retryCount_.load(std::memory_order_relaxed); }
  int getActiveWorkNum() const { return activeWorkNum_.load(std::memory_order_relaxed); }
  bool isReadInProgress() const { return readInProgress_.load(std::memory_order_relaxed); }
  bool isWriterWaiting() const { return writerWaiting_.load(std::memory_order_relaxed); }
  bool isReaderWaiting();  // a reader sleeps for data (takes streamLock_)
  bool isFeedRequested() const { return feedRequested_.load(std::memory_order_relaxed); }
  long long getRangeBegin() const { return rangeBegin_.load(std::memory_order_relaxed); }
  // Snapshot of the used blocks as (beginning, payload), under streamLock_.
  std::list<std::pair<long long, unsigned long>> blockMap();
  // The mark streamIn sets when a connection delivered data already held.
  static std::atomic<bool> overrun;

 private:
  // Sink helpers, REQUIRES: streamLock_ held.
  BlockIt selectBlockToWrite(bool forStreaming);
  bool checkErrorInsert(BlockIt it);
  void flushBuffer(BlockIt it);
  void resetBlock(BlockIt it);
  void setStatus(int status);
  bool isFinalStatus(int status, int retry) const;
  bool refuseChunk(int version);
  bool storeChunk(void* data, unsigned long size, int version, bool inPlace);
  void takeWriteBlock(BlockIt chosen, long long begin);
  bool afterStore(BlockIt startHead, bool dropped);
  void handlePartialEnd();
  void handleCancel();
  void restartAfterFailure();

  // Fragmenting and feeding, REQUIRES: streamLock_ held.
  bool fragmentStreaming(long long offset, BlockIt it);
  bool needToFeed();
  void feedIfIdle();
  bool isHeld(long long offset);
  // First offset at or after `from` whose byte is not held; *block is the
  // block a connection starting there continues, or end() when it needs a
  // fresh block (the start is then block-aligned).
  long long startOfMissing(long long from, BlockIt* block);
  // Points wtHead at the place a connection starting at `from` writes to.
  long long prepareWriteHead(long long from);
  void followReader();
  bool connectionPending() const { return startPending_ || activeWorkNum_ >= 2; }

  // Reading helpers, REQUIRES: streamLock_ held.
  bool fill(long long offset, unsigned long size, char* buffer, unsigned long* got, int mode);
  bool easyFill(long long offset, unsigned long size, char* buffer, unsigned long* got,
                bool backward);
  bool waitForData(long long wakeAt, const char* breakText);
  long long wakePoint(long long wanted);
  void relocateReader(long long offset);
  // Copies from the reader's block with the stream lock let go, the block
  // pinned (copyBlock_) for that time.
  unsigned long copyUnlocked(BufferBlock* block, unsigned long pos, char* dst, unsigned long len);
  // Returns once no reader copy runs: called before a decision that may
  // rebase any block. Lets the lock go while it waits.
  void awaitReaderCopy();
  void handToReader();
  void readerAwake();
  bool writerCanGoOn();
  bool endReached(long long offset) const;
  static long long steadyMs();

  void restartForReader();  // REQUIRES: streamLock_ held
  void stopMonitor();
  void waitForTasks();

  DumpFile dumper_;
  std::atomic<bool> readInProgress_{false};   // [S]
  std::atomic<bool> writerWaiting_{false};    // [S]
  std::atomic<bool> resetRequested_{false};   // [S]
  long long blockCount_;
  long long totalCapacity_;
  std::atomic<long long> contentSize_{0};     // [S]
  std::atomic<int> activeWorkNum_{0};         // [S]
  bool initialised_ = false;                  // queue lock
  BufferQueueProducer* producer_ = nullptr;
  std::atomic<long long> readOffset_{0};      // [S] and the queue lock
  std::atomic<long long> rangeBegin_{0};      // [S]
  std::atomic<int> version_{0};               // [S]
  Semaphore streamLock_;
  Semaphore statusLock_;
  ThreadObject worker_;
  std::atomic<bool> feedRequested_{false};    // [S]
  std::atomic<bool> breakReadRequested_{false};  // [S]
  std::atomic<int> streamStatus_{1};          // written under statusLock_ inside [S]
  std::list<BufferBlock*> blocks_;            // [S]
  BlockIt rdTail_;                            // [S]
  BlockIt wtHead_;                            // [S]
  std::atomic<bool> seekable_{true};          // [S]
  std::atomic<int> retryCount_{0};            // [S]
  unsigned char previousHead_[32768];         // [S]
  int previousHeadCount_ = 0;
  unsigned char currentHead_[32768];
  int currentHeadCount_ = 0;
  std::atomic<bool> volatileContent_{false};
  BufferBlockPool* pool_ = nullptr;

  // Worker side.
  Semaphore reconnectLock_;
  std::atomic<long long> rangeCount_{0};      // [S]
  long long connectionBegin_ = 0;             // [S]
  std::atomic<bool> workerBusy_{false};       // [S]

  // Reading side.
  std::atomic<bool> seekHappened_{false};     // queue lock
  bool workerStarted_ = false;                // queue lock
  bool contiguityCheckPending_ = false;       // [S]
  long long lastReadEnd_ = -1;                // queue lock: where the last read ended
  bool sequentialRead_ = false;               // [S]: this read goes on from there

  // Connection tracking of this implementation, all [S].
  bool streamLive_ = false;        // the current version's connection may still deliver
  long long producerPos_ = 0;      // offset of the next byte the producer sends
  long long activity_ = 0;         // chunks and events seen, for the monitor
  bool readerWaiting_ = false;     // a reader sleeps in fill/easyFill for data
  unsigned long readerWakes_ = 0;  // waits for data the reader came back from
  bool handOffWaiting_ = false;    // a writer waits for a woken reader to run
  BufferBlock* copyBlock_ = nullptr;  // pinned: a reader copies from it unlocked
  bool copyAwaited_ = false;       // someone waits for that copy to end
  // The place last handed out by directRoom and the block state it was
  // handed out for; its chunk is taken in place only while that still holds.
  unsigned char* roomPtr_ = nullptr;
  BufferBlock* roomBlock_ = nullptr;
  long long roomBegin_ = 0;
  unsigned long roomPayload_ = 0;
  int roomVersion_ = 0;
  long long wakeAt_ = 0;           // the write point at which that reader can go on
  long long wakeLate_ = 0;         // wakeAt_ plus a margin for a writer at memory speed
  long long lastChunkNs_ = 0;      // steady time of the last chunk read in place
  int silentRestarts_ = 0;         // monitor restarts since the last delivered byte
  bool answered_ = false;          // the source has reported a first answer
  bool retryPending_ = false;      // an empty connection's retry waits for retryAfterMs_
  long long retryAfterMs_ = 0;     // steady clock, milliseconds
  bool released_ = false;
  bool startPending_ = false;      // a connection start is on its way to workBegin
  long long knownEnd_ = -1;        // where a to-the-end connection found the content's end
  long long connectionCount_ = 0;  // byte count the current connection was asked for
  unsigned long readSerial_ = 0;   // reads started, so breakRead waits for its read only
  int breakWaiters_ = 0;           // breakRead calls waiting for a read to leave
  std::atomic<unsigned long> breaks_{0};  // [S] breakRead calls made
  int stallChecks_ = 0;            // monitor only
  long long lastActivity_ = -1;    // monitor only
  int blockedChecks_ = 0;          // monitor only: checks with reader and writer waiting
  long long blockedReader_ = -1;   // monitor only: the reader's offset during them

  bool monitorStarted_ = false;    // queue lock: checked by the FeedMonitor

  // Reconnection tasks scheduled and not yet finished or cancelled.
  Semaphore taskLock_;
  int pendingTasks_ = 0;           // taskLock_

 public:
  static std::atomic<int> workerEnd;
};

}  // namespace util

#endif  // CORVANE_BUFFER_BUFFER_QUEUE_H_
