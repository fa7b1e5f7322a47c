// Chunks a producer reads straight into the queue's write block (directRoom)
// and the ordinary way, mixed: the bytes read back must be exact either way.
#include <gtest/gtest.h>

#include <vector>

#include "buffer/buffer_queue.h"
#include "scripted_producer.h"

namespace {

using testsupport::patternByte;
using testsupport::ScriptedProducer;
using util::BufferQueue;

void fillPattern(void* place, long long from, long long n) {
  unsigned char* p = static_cast<unsigned char*>(place);
  for (long long i = 0; i < n; ++i) p[i] = patternByte(from + i);
}

void expectPattern(BufferQueue& queue, long long from, unsigned long n) {
  long long at = 0;
  ASSERT_TRUE(queue.seek(from, &at));
  std::vector<char> buffer(n);
  unsigned long got = 0;
  ASSERT_EQ(0, queue.read(buffer.data(), n, &got));
  ASSERT_EQ(n, got);
  for (unsigned long i = 0; i < n; ++i) {
    ASSERT_EQ(patternByte(from + static_cast<long long>(i)), static_cast<unsigned char>(buffer[i]))
        << "at " << from + static_cast<long long>(i);
  }
}

struct DirectFixture {
  DirectFixture() : producer(1 << 20, true), queue(4 * 32768) {
    queue.initialize(&producer);
    producer.setOut(&queue);
  }
  ~DirectFixture() { queue.release(); }
  ScriptedProducer producer;
  BufferQueue queue;
};

TEST(BufferQueueDirect, ChunksReadIntoTheRoomAreTakenInPlaceAcrossBlocks) {
  DirectFixture f;
  f.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  long long at = 0;
  for (int i = 0; i < 5; ++i) {
    void* room = f.queue.directRoom(16384, 0);
    ASSERT_NE(nullptr, room) << "chunk " << i;
    fillPattern(room, at, 16384);
    ASSERT_TRUE(f.queue.streamIn(room, 16384, 0));
    at += 16384;
  }
  // A short last chunk, as at the end of a file.
  void* room = f.queue.directRoom(16384, 0);
  ASSERT_NE(nullptr, room);
  fillPattern(room, at, 1000);
  ASSERT_TRUE(f.queue.streamIn(room, 1000, 0));
  std::list<std::pair<long long, unsigned long>> expected = {
      {0, 32768}, {32768, 32768}, {65536, 16384 + 1000}};
  EXPECT_EQ(expected, f.queue.blockMap());
  expectPattern(f.queue, 0, 5 * 16384 + 1000);
}

TEST(BufferQueueDirect, NoRoomUnlessTheStreamRunsNormallyInTheCurrentVersion) {
  DirectFixture f;
  EXPECT_EQ(nullptr, f.queue.directRoom(16384, 0));  // no stream-normal event yet
  f.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  EXPECT_EQ(nullptr, f.queue.directRoom(16384, 1));  // another connection's version
  EXPECT_EQ(nullptr, f.queue.directRoom(40000, 0));  // more than a block holds
  EXPECT_NE(nullptr, f.queue.directRoom(16384, 0));
}

TEST(BufferQueueDirect, ARoomOfASupersededConnectionIsRefused) {
  DirectFixture f;
  f.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  ASSERT_TRUE(f.producer.deliver(0, 1000, 0));
  void* room = f.queue.directRoom(16384, 0);
  ASSERT_NE(nullptr, room);
  fillPattern(room, 1000, 16384);
  // A restart of the stream comes in between (an error event restarts it
  // under a new version).
  f.queue.notifyStreamException(util::EVENT_STREAM_ERROR);
  EXPECT_FALSE(f.queue.streamIn(room, 16384, 0));
  std::list<std::pair<long long, unsigned long>> held = {{0, 1000}};
  EXPECT_EQ(held, f.queue.blockMap());
}

}  // namespace
