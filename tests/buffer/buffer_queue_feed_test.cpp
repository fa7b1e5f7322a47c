// Continuation of a connection that ended before the content's end.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "scripted_producer.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace {

using testsupport::expectPattern;
using testsupport::LogCapture;
using testsupport::ScriptedProducer;
using testsupport::ScriptedQueue;
using testsupport::waitFor;
using util::BufferQueue;

// Each test's queue holds four blocks of a 1 MiB stream unless it says else.

TEST(BufferQueueFeed, PartialEndBeforeTheSizeContinuesFromTheEndOfHeldData) {
  LogCapture log(0);
  ScriptedQueue f;
  std::vector<char> buffer(60000);
  std::thread reader = f.readInBackground(buffer.data(), buffer.size());
  ASSERT_TRUE(waitFor([&] { return f.producer.startCount() == 1; }));
  f.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  ASSERT_TRUE(f.producer.deliver(0, 50000, 0));
  f.queue.notifyStreamException(util::EVENT_STREAM_PARTIAL_END);
  EXPECT_TRUE(log.contains("begin to fragment streaming"));
  ASSERT_TRUE(waitFor([&] { return f.producer.startCount() == 2; }));
  EXPECT_EQ(50000, f.producer.starts()[1].from);
  EXPECT_EQ(1, f.producer.starts()[1].version);
  EXPECT_FALSE(f.producer.deliver(50000, 100, 0));  // the old connection is over
  ASSERT_TRUE(f.producer.deliver(50000, 10000, 1));
  reader.join();
  EXPECT_EQ(0, f.result);
  ASSERT_EQ(60000u, f.got);
  expectPattern(buffer.data(), 0, f.got);
}

// A connection that ends exactly at a block's end while every block holds
// data the reader has not read yet: the next one starts right there and
// its first chunk waits for the reader to free a block. Giving up one of the
// unread blocks instead would make the reader fetch those bytes again.
TEST(BufferQueueFeed, PartialEndOnAFullBufferKeepsTheUnreadBlocks) {
  ScriptedQueue f;
  const long long end = 4 * 32768;
  std::vector<char> buffer(end + 40000);
  std::thread first = f.readInBackground(buffer.data(), 1);
  ASSERT_TRUE(waitFor([&] { return f.producer.startCount() == 1; }));
  f.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  ASSERT_TRUE(f.producer.deliver(0, end, 0));
  first.join();
  ASSERT_EQ(0, f.result);
  f.queue.notifyStreamException(util::EVENT_STREAM_PARTIAL_END);
  ASSERT_TRUE(waitFor([&] { return f.producer.startCount() == 2; }));
  EXPECT_EQ(end, f.producer.starts()[1].from);
  EXPECT_EQ(1, f.producer.starts()[1].version);
  bool delivered = false;
  std::thread writer([&] { delivered = f.producer.deliver(end, 40000, 1); });
  unsigned long rest = 0;
  EXPECT_EQ(0, f.queue.read(buffer.data() + 1, buffer.size() - 1, &rest));
  writer.join();
  EXPECT_TRUE(delivered);
  ASSERT_EQ(buffer.size() - 1, rest);
  expectPattern(buffer.data(), 0, buffer.size());
  EXPECT_EQ(2u, f.producer.startCount());
}

TEST(BufferQueueFeed, PartialEndAtTheSizeEndsTheStream) {
  ScriptedQueue f(4 * 32768, 1000);
  f.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  ASSERT_TRUE(f.producer.deliver(0, 1000, 0));
  f.queue.notifyStreamException(util::EVENT_STREAM_PARTIAL_END);
  EXPECT_EQ(BufferQueue::STREAM_END, f.queue.getStreamStatus());
  EXPECT_EQ(0u, f.producer.startCount());
  char buffer[1000];
  EXPECT_EQ(0, f.queue.read(buffer, 1000, &f.got));
  EXPECT_EQ(1000u, f.got);
}

// A source that cannot seek, read at the front block up to a gap, while the
// write point sits in the last block far ahead: the writer waits for a free
// block (the reader's block is the front one) and the reader waits for the
// gap, which only a connection from there can fill. The monitor must give
// the blocked connection up for one from the reader's first missing byte.
// With 16 blocks the reader's sequential reads are also left asleep for a
// margin while the writer is fast: that must not hide the deadlock either.
class WriterWaitingForABlock : public ::testing::TestWithParam<int> {};

TEST_P(WriterWaitingForABlock, DoesNotHoldAReaderWaitingInAGap) {
  const int blocks = GetParam();
  BufferQueue::overrun = false;
  LogCapture log(0);
  ScriptedQueue f(blocks * 32768, 2 << 20, false);
  ScriptedProducer& producer = f.producer;
  BufferQueue& queue = f.queue;
  std::vector<char> buffer(32768);
  unsigned long& got = f.got;
  int& result = f.result;

  // The front block holds [0, 32768).
  std::thread first = f.readInBackground(buffer.data(), 32768);
  ASSERT_TRUE(waitFor([&] { return producer.startCount() == 1; }));
  queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  ASSERT_TRUE(producer.deliver(0, 32768, 0));
  first.join();
  ASSERT_EQ(0, result);
  ASSERT_EQ(32768u, got);
  ASSERT_FALSE(queue.isRandomAccess());

  // A reader far ahead: the monitor starts a connection there, which fills
  // the other blocks; the write point ends in the last one.
  long long at = 0;
  ASSERT_TRUE(queue.seek(600000, &at));
  result = 1;
  std::thread far = f.readInBackground(buffer.data(), 1);
  ASSERT_TRUE(waitFor([&] { return producer.startCount() == 2; }, 5000));
  ASSERT_EQ(589824, producer.starts()[1].from);
  int farVersion = producer.starts()[1].version;
  const long long farEnd = 589824 + (blocks - 1) * 32768LL;
  ASSERT_TRUE(producer.deliver(589824, farEnd - 589824, farVersion));
  far.join();
  ASSERT_EQ(0, result);
  ASSERT_EQ(1u, got);
  expectPattern(buffer.data(), 600000, 1);

  // Back to the front block: its last bytes are there.
  ASSERT_TRUE(queue.seek(32000, &at));
  ASSERT_EQ(0, queue.read(buffer.data(), 100, &got));
  ASSERT_EQ(100u, got);
  expectPattern(buffer.data(), 32000, 100);

  // The far connection goes on and finds no free block.
  std::atomic<bool> writerDone{false};
  bool writerGoesOn = true;
  std::thread writer([&] {
    writerGoesOn = producer.deliver(farEnd, 1000, farVersion);
    writerDone = true;
  });
  ASSERT_TRUE(waitFor([&] { return queue.isWriterWaiting(); }, 5000));

  // Reading on runs into the gap at 32768.
  std::atomic<bool> readDone{false};
  result = 1;
  std::thread gap([&] {
    result = queue.read(buffer.data(), 1000, &got);
    readDone = true;
  });
  bool restarted = waitFor([&] { return producer.startCount() == 3; }, 10000);
  if (!restarted) queue.breakRead();  // the read would block for good
  if (restarted) {
    EXPECT_EQ(32768, producer.starts()[2].from);
    EXPECT_GT(producer.starts()[2].version, farVersion);
    EXPECT_TRUE(log.contains("writer waits for a block while reader waits at 32768, restart there"));
    ASSERT_TRUE(waitFor([&] { return writerDone.load(); }, 5000));
    EXPECT_FALSE(writerGoesOn);  // the blocked connection was given up
    producer.deliver(32768, 32768, producer.starts()[2].version);
  }
  bool finished = waitFor([&] { return readDone.load(); }, 5000);
  // Ends whatever still waits (the writer, and the reader if the break did
  // not reach it) before the threads are joined.
  if (!finished || !writerDone) queue.release();
  gap.join();
  writer.join();
  ASSERT_TRUE(restarted) << "no new connection while reader and writer wait for each other";
  ASSERT_TRUE(finished);
  EXPECT_EQ(0, result);
  ASSERT_EQ(1000u, got);
  expectPattern(buffer.data(), 32100, 1000);
}

INSTANTIATE_TEST_SUITE_P(BufferQueueFeed, WriterWaitingForABlock, ::testing::Values(4, 16),
                         [](const ::testing::TestParamInfo<int>& p) {
                           return std::to_string(p.param) + "Blocks";
                         });

}  // namespace
