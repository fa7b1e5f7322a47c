// Continuation of a connection that ended before the content's end.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "buffer/buffer_queue.h"
#include "scripted_producer.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace {

using testsupport::ScriptedProducer;
using testsupport::waitFor;
using util::BufferQueue;

TEST(BufferQueueFeed, PartialEndBeforeTheSizeContinuesFromTheEndOfHeldData) {
  testsupport::LogCapture log(0);
  ScriptedProducer producer(1 << 20, true);
  BufferQueue queue(4 * 32768);
  queue.initialize(&producer);
  producer.setOut(&queue);
  std::vector<char> buffer(60000);
  unsigned long got = 0;
  int result = 1;
  std::thread reader([&] { result = queue.read(buffer.data(), buffer.size(), &got); });
  ASSERT_TRUE(waitFor([&] { return producer.startCount() == 1; }));
  queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  ASSERT_TRUE(producer.deliver(0, 50000, 0));
  queue.notifyStreamException(util::EVENT_STREAM_PARTIAL_END);
  EXPECT_TRUE(log.contains("begin to fragment streaming"));
  ASSERT_TRUE(waitFor([&] { return producer.startCount() == 2; }));
  EXPECT_EQ(50000, producer.starts()[1].from);
  EXPECT_EQ(1, producer.starts()[1].version);
  EXPECT_FALSE(producer.deliver(50000, 100, 0));  // the old connection is over
  ASSERT_TRUE(producer.deliver(50000, 10000, 1));
  reader.join();
  EXPECT_EQ(0, result);
  ASSERT_EQ(60000u, got);
  for (unsigned long i = 0; i < got; ++i) {
    ASSERT_EQ(testsupport::patternByte(static_cast<long long>(i)),
              static_cast<unsigned char>(buffer[i]));
  }
  queue.release();
}

TEST(BufferQueueFeed, PartialEndAtTheSizeEndsTheStream) {
  testsupport::LogCapture log(0);
  ScriptedProducer producer(1000, true);
  BufferQueue queue(4 * 32768);
  queue.initialize(&producer);
  producer.setOut(&queue);
  queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  ASSERT_TRUE(producer.deliver(0, 1000, 0));
  queue.notifyStreamException(util::EVENT_STREAM_PARTIAL_END);
  EXPECT_EQ(BufferQueue::STREAM_END, queue.getStreamStatus());
  EXPECT_EQ(0u, producer.startCount());
  char buffer[1000];
  unsigned long got = 0;
  EXPECT_EQ(0, queue.read(buffer, 1000, &got));
  EXPECT_EQ(1000u, got);
  queue.release();
}

}  // namespace
