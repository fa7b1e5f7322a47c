// Reading and seeking through a queue fed by a threaded pattern source.
#include <dirent.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "scripted_producer.h"
#include "support/log_capture.h"
#include "support/pattern_producer.h"
#include "support/wait.h"
#include "thread/thread_engine.h"

namespace {

using testsupport::PatternProducer;
using testsupport::readChecked;
using testsupport::waitFor;
using util::BufferQueue;

struct Source {
  Source(int bufferSize, long long size, bool seekable = true)
      : producer(size, seekable), queue(bufferSize) {
    queue.initialize(&producer);
    producer.setOut(&queue);
  }
  ~Source() { queue.release(); }
  PatternProducer producer;
  BufferQueue queue;
};

int threadCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count;
}

TEST(BufferQueueRead, ReadAtExactlyTheSizeIsEofAndSeekPastItFails) {
  Source s(4 * 32768, 100000);
  EXPECT_EQ(1000u, readChecked(s.queue, 0, 1000));
  long long at = 0;
  EXPECT_FALSE(s.queue.seek(100001, &at));
  EXPECT_EQ(1000, at);
  EXPECT_EQ(1000, s.queue.getReadOffset());
  EXPECT_TRUE(s.queue.seek(100000, &at));
  char buffer[10];
  unsigned long got = 0;
  EXPECT_EQ(BufferQueue::SMFR_EOF, s.queue.read(buffer, 10, &got));
  EXPECT_EQ(0u, got);
  // The last bytes: a read across the end returns what there is.
  EXPECT_EQ(100u, readChecked(s.queue, 99900, 4096));
}

// Which reads cost a connection and from where: after each step (reading
// `n` bytes at `offset`) the source has seen `starts` connections, the last
// from `from`, and no further one comes after the last step.
TEST(BufferQueueRead, ReadsOutsideHeldDataStartOneConnectionAtTheAlignedOffset) {
  const long long far = 5 * 1024 * 1024 + 7;
  const long long mib = 1024 * 1024;
  struct Step {
    long long offset;
    unsigned long n;
    int starts;
    long long from;
  };
  struct Case {
    const char* name;
    int blocks;
    long long size;
    std::vector<Step> steps;
    std::vector<std::string> lines;  // printed by the backward walk
    bool seekable = true;
  } cases[] = {
      {"far seek, then back into data still held", 4, 10 * mib,
       {{0, 1000, 1, 0}, {far, 1000, 2, BufferQueue::alignLeft(far)},
        {far - 7, 500, 2, BufferQueue::alignLeft(far)}},
       {}},
      {"first read after a seek", 4, 4 * mib, {{3 * mib + 5, 20000, 1, 3 * mib}}, {}},
      {"backward before held data", 3, 4 * mib, {{2 * mib, 1000, 1, 2 * mib}, {100, 1000, 2, 0}},
       {"wait in the first block, rd:2097152, offset:100", "wake up in fill BACKWARD"}},
      {"backward to the start of a stream that cannot seek", 3, 4 * mib,
       {{2 * mib, 1000, 1, 2 * mib}, {100, 1000, 2, 0}},
       {"wake up in fill BACKWARD",
        "streaming is not seekable, upper layer seek to previous position, lumora need reconnect "
        "stream and read from begin of stream, so need to read forward\n"},
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testsupport::LogCapture log(2);
    Source s(c.blocks * 32768, c.size, c.seekable);
    for (const Step& step : c.steps) {
      EXPECT_EQ(step.n, readChecked(s.queue, step.offset, step.n)) << step.offset;
      ASSERT_EQ(step.starts, s.producer.starts()) << step.offset;
      EXPECT_EQ(step.from, s.producer.startOffsets().back()) << step.offset;
    }
    const int starts = c.steps.back().starts;
    EXPECT_TRUE(testsupport::staysFalse([&] { return s.producer.starts() != starts; }, 200));
    for (const std::string& line : c.lines) EXPECT_TRUE(log.contains(line)) << line;
  }
}

// A reader waiting for bytes that never come returns with a failure when
// the read is broken off, and when its queue is destroyed under it.
TEST(BufferQueueRead, AWaitingReaderReturnsOnBreakReadAndOnDestruction) {
  for (bool destroy : {false, true}) {
    PatternProducer producer(1 << 20);
    producer.silentStartsFrom(1);
    std::unique_ptr<BufferQueue> queue(new BufferQueue(4 * 32768));
    queue->initialize(&producer);
    producer.setOut(queue.get());
    BufferQueue* reading = queue.get();
    int result = 1;
    std::thread reader([&] {
      char buffer[100];
      unsigned long got = 0;
      result = reading->read(buffer, 100, &got);
    });
    ASSERT_TRUE(waitFor([&] { return reading->isReadInProgress(); })) << destroy;
    if (destroy) {
      queue.reset();
    } else {
      queue->breakRead();
    }
    reader.join();
    EXPECT_EQ(BufferQueue::SMFR_FAILED, result) << destroy;
  }
}

TEST(BufferQueueRead, ReleaseEndsStreamingAndLeavesNoThread) {
  util::ThreadEngine::_INS_.initialize();
  {
    // The process-wide threads (engine, feeding monitor) exist from the
    // first queue on and stay.
    Source warm(4 * 32768, 1024 * 1024);
    EXPECT_EQ(1000u, readChecked(warm.queue, 0, 1000));
  }
  const int before = threadCount();
  {
    Source s(4 * 32768, 10 * 1024 * 1024);
    EXPECT_EQ(1000u, readChecked(s.queue, 0, 1000));
    EXPECT_GT(threadCount(), before);
    s.queue.release();
    EXPECT_EQ(BufferQueue::STREAM_CANCELED, s.queue.getStreamStatus());
    char buffer[10];
    unsigned long got = 0;
    EXPECT_EQ(BufferQueue::READ_FINISHED, s.queue.read(buffer, 10, &got));
    EXPECT_TRUE(waitFor([&] { return threadCount() == before; }, 5000));
  }
}

TEST(BufferQueueRead, SourceThatStopsDeliveringEndsTheStreamWithAClearCode) {
  struct Case {
    bool refuse;
  } cases[] = {{true}, {false}};
  for (const Case& c : cases) {
    testsupport::LogCapture log(-4);
    Source s(4 * 32768, 4 * 1024 * 1024);
    EXPECT_EQ(1000u, readChecked(s.queue, 0, 1000));
    if (c.refuse) {
      s.producer.refuseStartsFrom(2);
    } else {
      s.producer.silentStartsFrom(2);
    }
    long long at = 0;
    ASSERT_TRUE(s.queue.seek(3 * 1024 * 1024, &at));
    char buffer[100];
    unsigned long got = 0;
    EXPECT_EQ(BufferQueue::READ_NOT_AVAILABLE, s.queue.read(buffer, 100, &got)) << c.refuse;
    EXPECT_EQ(BufferQueue::STREAM_NOT_AVAILABLE, s.queue.getStreamStatus());
    EXPECT_TRUE(log.contains("source silent after 3 restarts, stream given up"));
    EXPECT_EQ(BufferQueue::READ_FINISHED, s.queue.read(buffer, 100, &got));
  }
}

}  // namespace
