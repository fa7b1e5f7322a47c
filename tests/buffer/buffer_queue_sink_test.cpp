// The queue's sink driven chunk by chunk and event by event.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "scripted_producer.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace {

using testsupport::LogCapture;
using testsupport::ScriptedQueue;
using testsupport::waitFor;
using util::BufferQueue;

typedef std::list<std::pair<long long, unsigned long>> BlockMap;

TEST(BufferQueueSink, BlockCountAndCapacityFollowBufferSize) {
  struct Case {
    int bufferSize;
    long long blocks;
    long long capacity;
  } cases[] = {{40000, 2, 32768}, {100000, 3, 98304}, {0, 2, 0}, {32768, 2, 32768},
               {2 * 1024 * 1024, 64, 2 * 1024 * 1024}};
  for (const Case& c : cases) {
    BufferQueue queue(c.bufferSize);
    EXPECT_EQ(c.blocks, queue.getBlockCount()) << c.bufferSize;
    EXPECT_EQ(c.capacity, queue.getTotalCapacity()) << c.bufferSize;
    EXPECT_EQ(BufferQueue::STREAM_END, queue.getStreamStatus());
    ASSERT_TRUE(queue.initialize(nullptr));
    EXPECT_EQ(BufferQueue::STREAM_IDLE, queue.getStreamStatus());
  }
}

TEST(BufferQueueSink, AlignLeftRoundsTowardZero) {
  struct Case {
    long long in, out;
  } cases[] = {{70000, 65536}, {32767, 0}, {32768, 32768}, {0, 0}, {-1, 0}, {-40000, -32768}};
  for (const Case& c : cases) EXPECT_EQ(c.out, BufferQueue::alignLeft(c.in)) << c.in;
}

TEST(BufferQueueSink, StaleVersionIsRefusedAndStoresNothing) {
  LogCapture log(2);
  ScriptedQueue f(100000, 1 << 20);
  EXPECT_FALSE(f.producer.deliver(0, 100, 1));
  EXPECT_TRUE(f.queue.blockMap().empty());
  EXPECT_TRUE(log.contains("ver = 1, version =0, needExit = 0"));
  EXPECT_TRUE(f.producer.deliver(0, 100, 0));
  EXPECT_EQ((BlockMap{{0, 100}}), f.queue.blockMap());
  EXPECT_EQ(90, f.queue.getBufferedSize(10));
}

TEST(BufferQueueSink, ChunkSpillsIntoRecycledBlockAtHeadPlusBlockSize) {
  LogCapture log(2);
  ScriptedQueue f(100000, 1 << 20);
  EXPECT_TRUE(f.producer.deliver(0, 30000, 0));
  EXPECT_TRUE(f.producer.deliver(30000, 10000, 0));
  EXPECT_EQ((BlockMap{{0, 32768}, {32768, 40000 - 32768}}), f.queue.blockMap());
  EXPECT_TRUE(log.contains("new block 2 begin from 32768"));
  EXPECT_EQ(40000 - 5, f.queue.getBufferedSize(5));
  EXPECT_EQ(0, f.queue.getBufferedSize(500000));  // held nowhere
  EXPECT_EQ(0, f.queue.getMiniBlockOffset());
}

TEST(BufferQueueSink, WriterWaitsWhenEveryBlockHoldsUnreadDataUntilReleased) {
  LogCapture log(2);
  ScriptedQueue f(65536, 1 << 20);
  ASSERT_TRUE(f.producer.deliver(0, 65536, 0));
  bool result = true;
  std::thread writer([&] { result = f.producer.deliver(65536, 100, 0); });
  EXPECT_TRUE(waitFor([&] { return f.queue.isWriterWaiting(); }));
  EXPECT_TRUE(log.contains("wait in streamIn"));
  f.queue.release();
  writer.join();
  EXPECT_FALSE(result);
  EXPECT_EQ(BufferQueue::STREAM_CANCELED, f.queue.getStreamStatus());
  EXPECT_EQ(1, f.producer.stops.load());
}

TEST(BufferQueueSink, EveryEventMovesTheStatusAsDocumented) {
  struct Case {
    int event;
    long long size;
    int status;
    const char* line;
    bool restarts;
    bool seekable = true;
  } cases[] = {
      {util::EVENT_STREAM_NORMAL, 1000, BufferQueue::STREAM_NORMAL,
       "STREAM_NORMAL seekable = 1, totalSize:1000", false},
      {util::EVENT_STREAM_NORMAL, 5000, BufferQueue::STREAM_NORMAL,
       "STREAM_NORMAL seekable = 0, totalSize:5000", false, false},
      {util::EVENT_STREAM_ERROR, 1000, BufferQueue::STREAM_ERROR, "reset cause of STREAM_ERROR",
       true},
      {util::EVENT_STREAM_DEAD, 1000, BufferQueue::STREAM_IDLE, "reset cause of STREAM_DEAD", true},
      // Before any answer: the connection said nothing of the content, so it
      // is tried again later instead of ending the stream.
      {util::EVENT_STREAM_PARTIAL_END, 0, BufferQueue::STREAM_IDLE,
       "wait for new feeding request", false},
      {util::EVENT_STREAM_TIMEOUT, 1000, BufferQueue::STREAM_TIMEOUT,
       "reset stream cause of timeout", true},
      {util::EVENT_STREAM_NOT_FOUND, 1000, BufferQueue::STREAM_NOT_FOUND, "File not found", false},
      {util::EVENT_STREAM_NOT_AVAILABLE, 1000, BufferQueue::STREAM_NOT_AVAILABLE,
       "retry finished in not available error", false},
      {util::EVENT_STREAM_CANCEL, 1000, BufferQueue::STREAM_IDLE, "cancel without continuing",
       false},
      {8, 1000, BufferQueue::STREAM_IDLE, "error !!! event hasn't been handled, canceled is:7",
       false},
  };
  for (const Case& c : cases) {
    LogCapture log(0);
    ScriptedQueue f(100000, c.size, c.seekable);
    f.queue.notifyStreamException(c.event);
    EXPECT_EQ(c.status, f.queue.getStreamStatus()) << c.event;
    if (c.event == util::EVENT_STREAM_NORMAL) {  // the source's size and seekability are taken
      EXPECT_EQ(c.seekable, f.queue.isRandomAccess()) << c.line;
      EXPECT_EQ(c.size, f.queue.getContentSize()) << c.line;
    }
    EXPECT_TRUE(log.contains("stream event " + std::to_string(c.event))) << c.event;
    EXPECT_TRUE(log.contains(c.line)) << c.event;
    EXPECT_EQ(c.restarts ? 1 : 0, f.queue.getVersion()) << c.event;
    if (c.restarts) {
      // The reconnection task stops the producer and starts the worker,
      // which starts a connection with the new version.
      EXPECT_TRUE(waitFor([&] { return f.producer.startCount() == 1; })) << c.event;
      EXPECT_EQ(1, f.producer.starts()[0].version);
    }
  }
}

TEST(BufferQueueSink, ErrorAndTimeoutRetriesAreCounted) {
  struct Case {
    int event;
    int status;
    const char* finished;
  } cases[] = {{util::EVENT_STREAM_ERROR, BufferQueue::STREAM_ERROR,
                "retry finished in not available error"},
               {util::EVENT_STREAM_TIMEOUT, BufferQueue::STREAM_TIMEOUT,
                "retry finished in timeout"}};
  for (const Case& c : cases) {
    LogCapture log(0);
    ScriptedQueue f(100000, 1000);
    f.queue.notifyStreamException(c.event);
    EXPECT_EQ(1, f.queue.getRetryCount());
    EXPECT_FALSE(log.contains(c.finished));
    f.queue.notifyStreamException(c.event);
    EXPECT_EQ(2, f.queue.getRetryCount());
    EXPECT_TRUE(log.contains(c.finished));
    EXPECT_EQ(c.status, f.queue.getStreamStatus());
    // Final now: further events are only logged, and reads fail.
    f.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
    EXPECT_TRUE(log.contains("stream status is :" + std::to_string(c.status) +
                             ", retry finished:2 times"));
    char buffer[10];
    unsigned long got = 0;
    EXPECT_EQ(BufferQueue::READ_FINISHED, f.queue.read(buffer, 10, &got));
    EXPECT_EQ(1, f.queue.getVersion());  // only the first one restarted
  }
}

TEST(BufferQueueSink, FinalStatusRefusesChunksAndIgnoresEvents) {
  LogCapture log(0);
  ScriptedQueue f(100000, 1000);
  f.queue.notifyStreamException(util::EVENT_STREAM_NOT_FOUND);
  EXPECT_FALSE(f.producer.deliver(0, 10, 0));
  EXPECT_TRUE(log.contains("stream status is :4"));
  f.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  EXPECT_EQ(BufferQueue::STREAM_NOT_FOUND, f.queue.getStreamStatus());
  EXPECT_TRUE(f.queue.blockMap().empty());
}

TEST(BufferQueueSink, ResetErrorStatusClearsTimeoutButNotNotAvailable) {
  struct Case {
    int event;
    int after;
  } cases[] = {{util::EVENT_STREAM_TIMEOUT, BufferQueue::STREAM_IDLE},
               {util::EVENT_STREAM_NOT_FOUND, BufferQueue::STREAM_IDLE},
               {util::EVENT_STREAM_NOT_AVAILABLE, BufferQueue::STREAM_NOT_AVAILABLE}};
  for (const Case& c : cases) {
    ScriptedQueue f(100000, 1000);
    f.queue.notifyStreamException(c.event);
    f.queue.resetErrorStatus();
    EXPECT_EQ(c.after, f.queue.getStreamStatus()) << c.event;
  }
}

TEST(BufferQueueSink, RepeatedHeadOfANonSeekableStreamEndsTheConnection) {
  LogCapture log(1);
  ScriptedQueue f(100000, 0, false);
  std::vector<unsigned char> head(32768);
  for (size_t i = 0; i < head.size(); ++i) head[i] = testsupport::patternByte(i);
  EXPECT_TRUE(f.queue.cacheHeadToCheck(head.data(), 1000));
  EXPECT_TRUE(f.queue.cacheHeadToCheck(head.data() + 1000, 31768));  // first connection
  ASSERT_TRUE(f.producer.deliver(0, 40000, 0));
  std::vector<unsigned char> again(head);
  EXPECT_FALSE(f.queue.cacheHeadToCheck(again.data(), 32768));  // same as before
  EXPECT_TRUE(log.contains(
      "The new file part is the same as the old file, begin to terminate the connection"));
  EXPECT_EQ(40000, f.queue.getContentSize());
}

TEST(BufferQueueSink, StatusSevenRefusesTheOldConnectionUntilTheNewOneStarts) {
  LogCapture log(2);
  testsupport::Gate stopGate;
  ScriptedQueue f(100000, 1 << 20);
  f.producer.stopGate = &stopGate;
  char buffer[100];
  unsigned long got = 0;
  int result = 1;
  std::thread reader([&] { result = f.queue.read(buffer, sizeof(buffer), &got); });
  ASSERT_TRUE(waitFor([&] { return f.producer.startCount() == 1; }));
  // The source stays silent: the monitor restarts it and marks status 7
  // while the old connection is being stopped (held here by the gate).
  ASSERT_TRUE(waitFor([&] { return f.queue.getStreamStatus() == BufferQueue::STREAM_RESETTING; },
                      5000));
  EXPECT_TRUE(log.contains("begin to fix connection"));
  EXPECT_EQ(1, f.queue.getVersion());
  EXPECT_FALSE(f.producer.deliver(0, 100, 1));
  EXPECT_TRUE(log.contains("need reset stream"));
  EXPECT_EQ(BufferQueue::STREAM_IDLE, f.queue.getStreamStatus());
  stopGate.open();
  ASSERT_TRUE(waitFor([&] { return f.producer.startCount() == 2; }));
  EXPECT_EQ(1, f.producer.starts()[1].version);
  EXPECT_EQ(0, f.producer.starts()[1].from);
  EXPECT_TRUE(f.producer.deliver(0, 100, 1));
  reader.join();
  EXPECT_EQ(0, result);
  ASSERT_EQ(100u, got);
  testsupport::expectPattern(buffer, 0, 100);
}

TEST(BufferQueueSink, OverlapWithHeldDataStopsTheConnectionAndSetsTheOverrunMark) {
  LogCapture log(0);
  ScriptedQueue f(3 * 32768, 1 << 20);
  BufferQueue::overrun = false;
  char buffer[100];
  unsigned long got = 0;
  long long at = 0;
  ASSERT_TRUE(f.queue.seek(32768, &at));
  std::thread first([&] { f.queue.read(buffer, 100, &got); });
  ASSERT_TRUE(waitFor([&] { return f.producer.startCount() == 1; }));
  EXPECT_EQ(32768, f.producer.starts()[0].from);
  ASSERT_TRUE(f.producer.deliver(32768, 32768, 0));
  first.join();
  ASSERT_EQ(100u, got);
  // Backward to data nobody holds: the running connection is given up for
  // one from the start, and its next chunk is refused.
  ASSERT_TRUE(f.queue.seek(0, &at));
  int result = 1;
  std::thread second([&] { result = f.queue.read(buffer, 100, &got); });
  ASSERT_TRUE(waitFor([&] { return f.producer.startCount() == 2; }));
  EXPECT_FALSE(f.producer.deliver(65536, 100, 0));
  EXPECT_EQ(0, f.producer.starts()[1].from);
  EXPECT_EQ(1, f.producer.starts()[1].version);
  // The new connection runs into the block already held at 32768.
  EXPECT_FALSE(f.producer.deliver(0, 32768 + 10, 1));
  EXPECT_TRUE(BufferQueue::overrun.load());
  second.join();
  EXPECT_EQ(0, result);
  testsupport::expectPattern(buffer, 0, 100);
  // A cancel now is taken for the end of the connection.
  f.queue.notifyStreamException(util::EVENT_STREAM_CANCEL);
  EXPECT_TRUE(log.contains("manually translate cancel action to partition end action"));
  EXPECT_TRUE(log.contains("[QM]get EVENT_STREAM_PARTIAL_END, now size: 1048576"));
  EXPECT_FALSE(BufferQueue::overrun.load());
}

}  // namespace
