// The block queue between one producer and its readers: where connections
// start, what each source event does, and the hand-overs around full
// buffers, ended and superseded connections, played chunk by chunk.
#include <atomic>
#include <fstream>
#include <memory>
#include <thread>

#include "buffer/buffer_queue.h"
#include "buffer/buffer_queue_producer.h"
#include "source/local_file_request.h"
#include "support/support.h"

namespace testsupport {
namespace {

using util::BufferQueue;
typedef std::list<std::pair<long long, unsigned long>> BlockMap;

// Records what the queue asks of it. The test plays the chunks, or a local
// file of the pattern feeds the queue from each start (the local source).
class Producer : public util::BufferQueueProducer {
 public:
  struct Start {
    int version;
    long long from;
  };
  Producer(long long size, bool seekable, bool feeds) : size_(size), seekable_(seekable) {
    if (feeds) file_ = std::make_unique<LocalFileRequest>(dir_.writePattern("f", size));
    if (feeds) file_->initialize();
  }
  void setOut(util::StreamSink* out) override {
    out_ = out;
    if (file_) file_->setOut(out);
  }
  void release() override {}
  int startStreaming(int version, long long from, long long count) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      starts_.push_back({version, from});
    }
    if (startResult != 0 || !file_ || silent) return startResult;
    return file_->startStreaming(version, from, count);
  }
  int stopStreaming() override {
    ++stops;
    if (Gate* gate = stopGate.load()) gate->pass();
    return file_ ? file_->stopStreaming() : 0;
  }
  bool isRandomAccess() override { return seekable_; }
  long long getContentSize() override { return size_; }
  void setBreak() override {}
  bool getStopWait() override { return false; }
  void setStopWait() override {}
  int getRequestType() override { return 0; }
  bool initialize() override { return true; }
  void resetOut() override {}

  std::vector<Start> starts() {
    std::lock_guard<std::mutex> lock(mutex_);
    return starts_;
  }
  size_t startCount() { return starts().size(); }
  bool deliver(long long from, long long n, int version) {
    std::string bytes = patternBytes(from, n);
    return out_->streamIn(&bytes[0], static_cast<unsigned long>(n), version);
  }

  std::atomic<Gate*> stopGate{nullptr};
  std::atomic<int> stops{0};
  std::atomic<int> startResult{0};
  std::atomic<bool> silent{false};

 private:
  long long size_;
  bool seekable_;
  util::StreamSink* out_ = nullptr;
  std::mutex mutex_;
  std::vector<Start> starts_;
  TempDir dir_;
  std::unique_ptr<LocalFileRequest> file_;
};

struct Queue {
  Queue(int blocks, long long size, bool seekable = true, bool feeds = false)
      : producer(size, seekable, feeds), queue(blocks * 32768) {
    queue.initialize(&producer);
    producer.setOut(&queue);
  }
  ~Queue() { queue.release(); }
  // Seeks and reads `n` bytes; their check against the content.
  ::testing::AssertionResult read(long long offset, unsigned long n) {
    long long at = 0;
    if (!queue.seek(offset, &at)) return ::testing::AssertionFailure() << "seek " << offset;
    std::string buffer(n, '\0');
    unsigned long got = 0;
    int r = queue.read(&buffer[0], n, &got);
    long long left = std::min<long long>(n, queue.getContentSize() - offset);
    if (r != 0 && (left > 0 || got != 0)) return ::testing::AssertionFailure() << "read " << r;
    return isPatternAt(buffer.substr(0, got), offset, left);
  }
  std::thread readInBackground(char* into, unsigned long n) {
    return std::thread([this, into, n] { result = queue.read(into, n, &got); });
  }
  Producer producer;
  BufferQueue queue;
  unsigned long got = 0;
  std::atomic<int> result{1};
};

// After each read (`n` bytes at `offset`) the source has seen `starts`
// connections, the last from `from`; none comes after the last read.
TEST(BufferQueue, ReadsOutsideHeldDataStartOneConnectionAtTheAlignedOffset) {
  const long long mib = 1 << 20, far = 5 * mib + 7;
  const struct {
    int blocks;
    bool seekable;
    std::vector<std::vector<long long>> reads;  // offset, n, starts, from
    const char* line;
  } cases[] = {
      {4, true, {{0, 1000, 1, 0}, {far, 1000, 2, 5 * mib}, {far - 7, 500, 2, 5 * mib}}, ""},
      {4, true, {{3 * mib + 5, 20000, 1, 3 * mib}}, ""},
      {3, true, {{2 * mib, 1000, 1, 2 * mib}, {100, 1000, 2, 0}}, "wake up in fill BACKWARD"},
      {3, false, {{2 * mib, 1000, 1, 2 * mib}, {100, 1000, 2, 0}},
       "streaming is not seekable, upper layer seek to previous position, lumora need reconnect "
       "stream and read from begin of stream, so need to read forward\n"},
  };
  for (const auto& c : cases) {
    LogCapture log(2);
    Queue q(c.blocks, 10 * mib, c.seekable, true);
    for (const auto& r : c.reads) {
      EXPECT_TRUE(q.read(r[0], static_cast<unsigned long>(r[1])));
      ASSERT_EQ(static_cast<long long>(q.producer.startCount()), r[2]) << r[0];
      EXPECT_EQ(q.producer.starts().back().from, r[3]) << r[0];
      EXPECT_GE(q.producer.stops, r[2] - 1) << "a run left going under a new one";
    }
    size_t starts = q.producer.startCount();
    EXPECT_TRUE(staysFalse([&] { return q.producer.startCount() != starts; }, 200));
    if (*c.line) EXPECT_TRUE(log.contains(c.line)) << c.line;
    if (c.seekable) EXPECT_EQ(log.countContaining("streaming is not seekable"), 0);
  }
}

// Each event's status, line and restart; then what a reset of errors leaves
// (time-outs and missing files cleared, a refused service final).
TEST(BufferQueue, EachEventMovesTheStatus) {
  using Q = BufferQueue;
  const struct {
    int event, status;
    const char* line;
    bool restarts;
    int afterReset;
  } cases[] = {
      {util::EVENT_STREAM_NORMAL, Q::STREAM_NORMAL, "STREAM_NORMAL seekable = 1, totalSize:1000", false, 0},
      {util::EVENT_STREAM_ERROR, Q::STREAM_ERROR, "reset cause of STREAM_ERROR", true, Q::STREAM_ERROR},
      {util::EVENT_STREAM_DEAD, Q::STREAM_IDLE, "reset cause of STREAM_DEAD", true, Q::STREAM_NORMAL},
      {util::EVENT_STREAM_TIMEOUT, Q::STREAM_TIMEOUT, "reset stream cause of timeout", true, Q::STREAM_IDLE},
      {util::EVENT_STREAM_NOT_FOUND, Q::STREAM_NOT_FOUND, "File not found", false, Q::STREAM_IDLE},
      {util::EVENT_STREAM_NOT_AVAILABLE, Q::STREAM_NOT_AVAILABLE, "retry finished in not available error", false,
       Q::STREAM_NOT_AVAILABLE},
      {util::EVENT_STREAM_CANCEL, Q::STREAM_IDLE, "cancel without continuing", false, Q::STREAM_IDLE},
      {8, Q::STREAM_IDLE, "error !!! event hasn't been handled, canceled is:7", false, Q::STREAM_IDLE},
  };
  for (const auto& c : cases) {
    LogCapture log(0);
    Queue q(3, 1000);
    q.queue.notifyStreamException(c.event);
    EXPECT_EQ(q.queue.getStreamStatus(), c.status) << c.event;
    EXPECT_TRUE(log.contains(c.line)) << c.event;
    EXPECT_EQ(q.queue.getVersion(), c.restarts ? 1 : 0) << c.event;
    if (c.restarts) {
      EXPECT_TRUE(waitFor([&] { return q.producer.startCount() == 1; })) << c.event;
      EXPECT_EQ(q.producer.starts()[0].version, 1);
      // The second error or time-out is final: later events are only logged.
      q.queue.notifyStreamException(c.event);
      q.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
      bool final = c.event != util::EVENT_STREAM_DEAD;
      EXPECT_EQ(q.queue.getStreamStatus(), final ? c.status : Q::STREAM_NORMAL);
      char buffer[10];
      unsigned long got = 0;
      if (final) {
        // The read says why it ends (other threads may say it too).
        const std::string line = "stream status is :" + std::to_string(c.status) + ", retry finished:2 times";
        int said = log.count(line);
        EXPECT_EQ(q.queue.read(buffer, 10, &got), Q::READ_FINISHED);
        EXPECT_GT(log.count(line), said);
      }
    }
    q.queue.resetErrorStatus();
    EXPECT_EQ(q.queue.getStreamStatus(), c.afterReset) << c.event;
  }
}

TEST(BufferQueue, ChunksFillBlocksByVersionUntilEveryBlockHoldsUnreadData) {
  LogCapture log(2);
  Queue q(2, 1 << 20);
  EXPECT_FALSE(q.producer.deliver(0, 100, 1));  // a version not started
  EXPECT_TRUE(q.queue.blockMap().empty());
  EXPECT_TRUE(q.producer.deliver(0, 30000, 0));
  EXPECT_TRUE(q.producer.deliver(30000, 35536, 0));
  EXPECT_EQ(q.queue.blockMap(), (BlockMap{{0, 32768}, {32768, 32768}}));
  EXPECT_TRUE(log.contains("new block 1 begin from 32768"));
  EXPECT_EQ(q.queue.getBufferedSize(5), 65536 - 5);
  EXPECT_EQ(q.queue.getBufferedSize(500000), 0);
  std::atomic<int> stored{-1};
  std::thread writer([&] { stored = q.producer.deliver(65536, 100, 0); });
  EXPECT_TRUE(waitFor([&] { return q.queue.isWriterWaiting(); }));
  q.queue.release();
  writer.join();
  EXPECT_EQ(stored, 0);
  EXPECT_EQ(q.queue.getStreamStatus(), BufferQueue::STREAM_CANCELED);
}

// The direct room: only for the running version of a stream that answered,
// at most a block, and refused once another connection superseded it.
TEST(BufferQueue, DirectRoom) {
  Queue q(4, 1 << 20);
  EXPECT_EQ(q.queue.directRoom(16384, 0), nullptr);
  q.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  EXPECT_EQ(q.queue.directRoom(16384, 1), nullptr);
  EXPECT_EQ(q.queue.directRoom(40000, 0), nullptr);
  ASSERT_TRUE(q.producer.deliver(0, 1000, 0));
  void* room = q.queue.directRoom(16384, 0);
  ASSERT_NE(room, nullptr);
  fillPattern(static_cast<char*>(room), 1000, 16384);
  q.queue.notifyStreamException(util::EVENT_STREAM_ERROR);
  EXPECT_FALSE(q.queue.streamIn(room, 16384, 0));
  EXPECT_EQ(q.queue.blockMap(), (BlockMap{{0, 1000}}));
}

TEST(BufferQueue, AConnectionEndedBeforeTheSizeIsContinuedWhereHeldDataEnds) {
  for (long long end : {50000LL, 4 * 32768LL}) {  // the second fills every block
    LogCapture log(0);
    Queue q(4, 1 << 20);
    std::vector<char> buffer(end + 40000);
    std::thread first = q.readInBackground(buffer.data(), 1);
    ASSERT_TRUE(waitFor([&] { return q.producer.startCount() == 1; }));
    q.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
    ASSERT_TRUE(q.producer.deliver(0, end, 0));
    first.join();
    q.queue.notifyStreamException(util::EVENT_STREAM_PARTIAL_END);
    EXPECT_TRUE(log.contains("begin to fragment streaming"));
    ASSERT_TRUE(waitFor([&] { return q.producer.startCount() == 2; }));
    EXPECT_EQ(q.producer.starts()[1].from, end);
    EXPECT_EQ(q.producer.starts()[1].version, 1);
    EXPECT_FALSE(q.producer.deliver(end, 100, 0));  // the old connection is over
    std::atomic<bool> delivered{false};
    std::thread writer([&] { delivered = q.producer.deliver(end, 40000, 1); });
    unsigned long rest = 0;
    EXPECT_EQ(q.queue.read(buffer.data() + 1, buffer.size() - 1, &rest), 0);
    writer.join();
    EXPECT_TRUE(delivered);
    EXPECT_TRUE(isPatternAt(std::string(buffer.data(), rest + 1), 0, end + 40000));
    EXPECT_EQ(q.producer.startCount(), 2u);
  }
  Queue q(4, 1000);
  q.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  ASSERT_TRUE(q.producer.deliver(0, 1000, 0));
  q.queue.notifyStreamException(util::EVENT_STREAM_PARTIAL_END);
  EXPECT_EQ(q.queue.getStreamStatus(), BufferQueue::STREAM_END);
  EXPECT_TRUE(q.read(0, 1000));
}

// A backward read gives the running connection up for one from the start;
// that one runs into the block held further on, which ends it.
TEST(BufferQueue, OverlapWithHeldDataEndsTheConnection) {
  LogCapture log(0);
  Queue q(3, 1 << 20);
  BufferQueue::overrun = false;
  char buffer[100];
  long long at = 0;
  ASSERT_TRUE(q.queue.seek(32768, &at));
  std::thread first = q.readInBackground(buffer, 100);
  ASSERT_TRUE(waitFor([&] { return q.producer.startCount() == 1; }));
  EXPECT_EQ(q.producer.starts()[0].from, 32768);
  ASSERT_TRUE(q.producer.deliver(32768, 32768, 0));
  first.join();
  ASSERT_TRUE(q.queue.seek(0, &at));
  std::thread second = q.readInBackground(buffer, 100);
  ASSERT_TRUE(waitFor([&] { return q.producer.startCount() == 2; }));
  EXPECT_FALSE(q.producer.deliver(65536, 100, 0));
  EXPECT_EQ(q.producer.starts()[1].from, 0);
  EXPECT_FALSE(q.producer.deliver(0, 32768 + 10, 1));
  EXPECT_TRUE(BufferQueue::overrun.load());
  second.join();
  EXPECT_EQ(q.result, 0);
  EXPECT_EQ(firstPatternMismatch(buffer, 0, 100), -1);
  EXPECT_NE(q.queue.getStreamStatus(), BufferQueue::STREAM_ERROR);  // the restart succeeded
  q.queue.notifyStreamException(util::EVENT_STREAM_CANCEL);
  EXPECT_TRUE(log.contains("manually translate cancel action to partition end action"));
  EXPECT_FALSE(BufferQueue::overrun.load());
}

// A silent source is restarted by the monitor; while the old connection is
// being stopped (status 7) its chunks are refused, and the new one starts
// where the reader waits.
TEST(BufferQueue, ASilentConnectionIsReplaced) {
  LogCapture log(2);
  Gate stopGate;
  Queue q(3, 1 << 20);
  q.producer.stopGate = &stopGate;
  char buffer[100];
  std::thread reader = q.readInBackground(buffer, sizeof(buffer));
  ASSERT_TRUE(waitFor([&] { return q.queue.getStreamStatus() == BufferQueue::STREAM_RESETTING; }));
  EXPECT_TRUE(log.contains("begin to fix connection"));
  EXPECT_FALSE(q.producer.deliver(0, 100, 1));
  EXPECT_TRUE(log.contains("need reset stream"));
  stopGate.open();
  ASSERT_TRUE(waitFor([&] { return q.producer.startCount() == 2; }));
  EXPECT_EQ(q.producer.starts()[1].version, 1);
  EXPECT_EQ(q.producer.starts()[1].from, 0);
  EXPECT_TRUE(q.producer.deliver(0, 100, 1));
  reader.join();
  EXPECT_EQ(q.result, 0);
  EXPECT_EQ(firstPatternMismatch(buffer, 0, 100), -1);
}

// A source that cannot seek, read at the front block up to a gap, while its
// write point waits in the last block for a free one: the monitor gives the
// blocked connection up for one from the reader's first missing byte.
TEST(BufferQueue, AWriterWaitingForABlockDoesNotHoldAReaderWaitingInAGap) {
  for (int blocks : {4, 16}) {
    LogCapture log(0);
    Queue q(blocks, 2 << 20, false);
    std::vector<char> buffer(32768);
    std::thread first = q.readInBackground(buffer.data(), 32768);
    ASSERT_TRUE(waitFor([&] { return q.producer.startCount() == 1; }));
    q.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
    ASSERT_TRUE(q.producer.deliver(0, 32768, 0));
    first.join();
    long long at = 0;
    ASSERT_TRUE(q.queue.seek(600000, &at));
    std::thread far = q.readInBackground(buffer.data(), 1);
    ASSERT_TRUE(waitFor([&] { return q.producer.startCount() == 2; }));
    ASSERT_EQ(q.producer.starts()[1].from, 589824);
    const int farVersion = q.producer.starts()[1].version;
    const long long farEnd = 589824 + (blocks - 1) * 32768LL;
    ASSERT_TRUE(q.producer.deliver(589824, farEnd - 589824, farVersion));
    far.join();
    ASSERT_TRUE(q.read(32000, 100));
    std::atomic<int> writerGoesOn{-1};
    std::thread writer([&] { writerGoesOn = q.producer.deliver(farEnd, 1000, farVersion); });
    ASSERT_TRUE(waitFor([&] { return q.queue.isWriterWaiting(); }));
    q.result = 1;
    std::thread gap = q.readInBackground(buffer.data(), 1000);
    // Held for four feeding checks (300 ms at least), as a silent source is.
    EXPECT_TRUE(staysFalse([&] { return q.producer.startCount() == 3; }, 200)) << blocks;
    bool restarted = waitFor([&] { return q.producer.startCount() == 3; }, 10000);
    if (restarted) {
      EXPECT_EQ(q.producer.starts()[2].from, 32768);
      EXPECT_TRUE(log.contains("writer waits for a block while reader waits at 32768, restart there"));
      EXPECT_TRUE(waitFor([&] { return writerGoesOn == 0; }));
      q.producer.deliver(32768, 32768, q.producer.starts()[2].version);
    }
    bool finished = waitFor([&] { return q.result != 1; });
    if (!finished || writerGoesOn == -1) q.queue.release();
    gap.join();
    writer.join();
    ASSERT_TRUE(restarted && finished) << blocks;
    EXPECT_EQ(q.result, 0);
    EXPECT_EQ(firstPatternMismatch(buffer.data(), 32100, 1000), -1);
  }
}

TEST(BufferQueue, ASourceThatStopsDeliveringEndsTheStream) {
  for (bool refuse : {true, false}) {
    LogCapture log(-4);
    Queue q(4, 4 << 20, true, true);
    ASSERT_TRUE(q.read(0, 1000));
    q.producer.startResult = refuse ? -1 : 0;
    q.producer.silent = !refuse;
    long long at = 0;
    ASSERT_TRUE(q.queue.seek(3 << 20, &at));
    char buffer[100];
    unsigned long got = 0;
    EXPECT_EQ(q.queue.read(buffer, 100, &got), BufferQueue::READ_NOT_AVAILABLE) << refuse;
    EXPECT_TRUE(log.contains("source silent after 3 restarts, stream given up"));
    EXPECT_EQ(q.queue.read(buffer, 100, &got), BufferQueue::READ_FINISHED);
  }
}

// The head of each connection of a stream that cannot seek is compared with
// the previous one's: the same head again ends the connection and fixes the
// size at what is held.
TEST(BufferQueue, ARepeatedHeadEndsTheConnection) {
  LogCapture log(1);
  Queue q(3, 0, false);
  std::string head = patternBytes(0, 32768);
  unsigned char* bytes = reinterpret_cast<unsigned char*>(&head[0]);
  EXPECT_TRUE(q.queue.cacheHeadToCheck(bytes, 1000));
  EXPECT_TRUE(q.queue.cacheHeadToCheck(bytes + 1000, 31768));  // the first connection's
  ASSERT_TRUE(q.producer.deliver(0, 40000, 0));
  EXPECT_FALSE(q.queue.cacheHeadToCheck(bytes, 32768));
  EXPECT_TRUE(log.contains("The new file part is the same as the old file, begin to terminate the connection"));
  EXPECT_EQ(q.queue.getContentSize(), 40000);
}

int threadCount() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line) && line.rfind("Threads:", 0) != 0) {
  }
  return std::atoi(line.c_str() + 8);
}

// A released queue ends its stream and its worker; the process-wide
// threads (engine, feeding checks) come with the first queue and stay. A
// thread of the first queue may still be leaving when they are counted.
TEST(BufferQueue, ReleaseEndsTheStreamAndLeavesNoThread) {
  {
    Queue warm(4, 1 << 20, true, true);
    ASSERT_TRUE(warm.read(0, 1000));
  }
  const int before = threadCount();
  Queue q(4, 10 << 20, true, true);
  ASSERT_TRUE(q.read(0, 1000));
  q.queue.release();
  EXPECT_EQ(q.queue.getStreamStatus(), BufferQueue::STREAM_CANCELED);
  char buffer[10];
  unsigned long got = 0;
  EXPECT_EQ(q.queue.read(buffer, 10, &got), BufferQueue::READ_FINISHED);
  // The local file's own thread stays until the file is destroyed.
  EXPECT_TRUE(waitFor([&] { return threadCount() <= before + 1; }));
}

}  // namespace
}  // namespace testsupport
