// Reading and seeking through a queue fed by a threaded pattern source.
#include <dirent.h>
#include <gtest/gtest.h>

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
  Source(int bufferSize, long long size) : producer(size), queue(bufferSize) {
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

TEST(BufferQueueRead, FarSeekStartsOneConnectionAtTheAlignedOffset) {
  Source s(4 * 32768, 10 * 1024 * 1024);
  EXPECT_EQ(1000u, readChecked(s.queue, 0, 1000));
  EXPECT_EQ(1, s.producer.starts());
  const long long far = 5 * 1024 * 1024 + 7;
  EXPECT_EQ(1000u, readChecked(s.queue, far, 1000));
  ASSERT_EQ(2, s.producer.starts());
  EXPECT_EQ(BufferQueue::alignLeft(far), s.producer.startOffsets()[1]);
  // Backward into data still held: no connection.
  EXPECT_EQ(500u, readChecked(s.queue, far - 7, 500));
  EXPECT_TRUE(testsupport::staysFalse([&] { return s.producer.starts() != 2; }, 200));
}

TEST(BufferQueueRead, FirstReadAfterASeekStartsTheConnectionThere) {
  Source s(4 * 32768, 4 * 1024 * 1024);
  EXPECT_EQ(20000u, readChecked(s.queue, 3 * 1024 * 1024 + 5, 20000));
  ASSERT_EQ(1, s.producer.starts());
  EXPECT_EQ(3 * 1024 * 1024, s.producer.startOffsets()[0]);
}

TEST(BufferQueueRead, BackwardSeekBeforeHeldDataRestartsOnce) {
  testsupport::LogCapture log(2);
  Source s(3 * 32768, 4 * 1024 * 1024);
  EXPECT_EQ(1000u, readChecked(s.queue, 2 * 1024 * 1024, 1000));
  EXPECT_EQ(1000u, readChecked(s.queue, 100, 1000));
  if (s.producer.starts() != 2) {
    for (const std::string& text : log.texts()) {
      if (text.find("output from") == std::string::npos && text.find("size:") != 0) {
        std::printf("%s\n", text.c_str());
      }
    }
  }
  ASSERT_EQ(2, s.producer.starts());
  EXPECT_EQ(0, s.producer.startOffsets()[1]);
}

TEST(BufferQueueRead, BreakReadReturnsABlockedReaderPromptly) {
  Source s(4 * 32768, 1 << 20);
  s.producer.silentStartsFrom(1);
  int result = 1;
  std::thread reader([&] {
    char buffer[100];
    unsigned long got = 0;
    result = s.queue.read(buffer, 100, &got);
  });
  ASSERT_TRUE(waitFor([&] { return s.queue.isReadInProgress(); }));
  s.queue.breakRead();
  reader.join();
  EXPECT_EQ(BufferQueue::SMFR_FAILED, result);
}

TEST(BufferQueueRead, ReleaseEndsStreamingAndLeavesNoThread) {
  util::ThreadEngine::_INS_.initialize();
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

TEST(BufferQueueRead, DestroyingAQueueReturnsItsWaitingReader) {
  PatternProducer producer(1 << 20);
  producer.silentStartsFrom(1);
  BufferQueue* queue = new BufferQueue(4 * 32768);
  queue->initialize(&producer);
  producer.setOut(queue);
  int result = 1;
  std::thread reader([&] {
    char buffer[100];
    unsigned long got = 0;
    result = queue->read(buffer, 100, &got);
  });
  ASSERT_TRUE(waitFor([&] { return queue->isReadInProgress(); }));
  delete queue;
  reader.join();
  EXPECT_EQ(BufferQueue::SMFR_FAILED, result);
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
