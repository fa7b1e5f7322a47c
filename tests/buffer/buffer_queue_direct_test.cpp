// Chunks a producer reads straight into the queue's write block (directRoom)
// and the ordinary way, mixed: the bytes read back must be exact either way.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "scripted_producer.h"

namespace {

using testsupport::patternByte;
using testsupport::ScriptedQueue;
using testsupport::waitFor;
using util::BufferQueue;

void fillPattern(void* place, long long from, long long n) {
  unsigned char* p = static_cast<unsigned char*>(place);
  for (long long i = 0; i < n; ++i) p[i] = patternByte(from + i);
}

TEST(BufferQueueDirect, ChunksReadIntoTheRoomAreTakenInPlaceAcrossBlocks) {
  ScriptedQueue f;  // four blocks of a 1 MiB stream
  f.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  long long at = 0;
  // The last chunk is short, as at the end of a file.
  for (long long n : {16384, 16384, 16384, 16384, 16384, 1000}) {
    void* room = f.queue.directRoom(16384, 0);
    ASSERT_NE(nullptr, room) << "chunk at " << at;
    fillPattern(room, at, n);
    ASSERT_TRUE(f.queue.streamIn(room, static_cast<unsigned long>(n), 0));
    at += n;
  }
  std::list<std::pair<long long, unsigned long>> expected = {
      {0, 32768}, {32768, 32768}, {65536, 16384 + 1000}};
  EXPECT_EQ(expected, f.queue.blockMap());
  EXPECT_EQ(5u * 16384 + 1000, testsupport::readChecked(f.queue, 0, 5 * 16384 + 1000));
}

TEST(BufferQueueDirect, NoRoomUnlessTheStreamRunsNormallyInTheCurrentVersion) {
  ScriptedQueue f;
  EXPECT_EQ(nullptr, f.queue.directRoom(16384, 0));  // no stream-normal event yet
  f.queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  EXPECT_EQ(nullptr, f.queue.directRoom(16384, 1));  // another connection's version
  EXPECT_EQ(nullptr, f.queue.directRoom(40000, 0));  // more than a block holds
  EXPECT_NE(nullptr, f.queue.directRoom(16384, 0));
}

TEST(BufferQueueDirect, ARoomOfASupersededConnectionIsRefused) {
  ScriptedQueue f;
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

// How a reader sleeping for a 64 KiB read behind the writer gets its bytes:
// the writer hands in 16 KiB chunks (read into the room, or the ordinary
// way), some at once, some after a pause, and may end the connection. While
// chunks come into the room back to back the reader may be left asleep for
// a margin more, but never past a chunk that came after a pause, the end of
// the connection, or the margin itself.
struct WakeCase {
  const char* name;
  bool sequential;       // the read goes on where a first one ended
  bool inPlace;
  int chunksAtOnce;      // delivered back to back after the first read
  int chunksAfterPause;  // then each after a pause
  bool endAfter;         // then the partial-end event
};

class BufferQueueWake : public ::testing::TestWithParam<WakeCase> {};

TEST_P(BufferQueueWake, TheReadReturnsWithItsBytes) {
  const WakeCase& c = GetParam();
  const unsigned long kRead = 65536;
  ScriptedQueue f(2 << 20, 8 << 20);  // what a file handle gets: the margin applies
  testsupport::ScriptedProducer& producer = f.producer;
  BufferQueue& queue = f.queue;
  // A first read makes the next one sequential, the kind a margin is for.
  const long long kFirst = c.sequential ? 16384 : 0;
  std::vector<char> buffer(kRead);
  unsigned long got = 0;
  std::atomic<int> result{1};
  std::atomic<bool> done{false};
  if (c.sequential) {
    std::thread first([&] { result = queue.read(buffer.data(), kFirst, &got); });
    ASSERT_TRUE(waitFor([&] { return producer.startCount() == 1; }));
    queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
    ASSERT_TRUE(producer.deliver(0, kFirst, 0));
    first.join();
    ASSERT_EQ(0, result.load());
  }
  std::thread reader([&] {
    result = queue.read(buffer.data(), kRead, &got);
    done = true;
  });
  if (!c.sequential) {
    ASSERT_TRUE(waitFor([&] { return producer.startCount() == 1; }));
    queue.notifyStreamException(util::EVENT_STREAM_NORMAL);
  }
  ASSERT_TRUE(waitFor([&] { return queue.isReaderWaiting(); }));
  long long at = kFirst;
  auto chunk = [&] {
    if (c.inPlace) {
      void* room = queue.directRoom(16384, 0);
      ASSERT_NE(nullptr, room);
      fillPattern(room, at, 16384);
      ASSERT_TRUE(queue.streamIn(room, 16384, 0));
    } else {
      ASSERT_TRUE(producer.deliver(at, 16384, 0));
    }
    at += 16384;
  };
  for (int i = 0; i < c.chunksAtOnce; ++i) chunk();
  for (int i = 0; i < c.chunksAfterPause; ++i) {
    // The pause is the point of the case: a writer slower than memory.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    chunk();
  }
  if (c.endAfter) queue.notifyStreamException(util::EVENT_STREAM_PARTIAL_END);
  bool returned = waitFor([&] { return done.load(); }, 5000);
  queue.release();  // ends a read still sleeping, so the thread can be joined
  reader.join();
  ASSERT_TRUE(returned);
  // Woken by the writer, not rescued by the monitor restarting a stream it
  // took for stalled (which it does after some 400 ms). An end before the
  // content's size starts the next part itself.
  if (!c.endAfter) {
    EXPECT_EQ(1u, producer.startCount());
  }
  EXPECT_EQ(0, result.load());
  ASSERT_EQ(kRead, got);
  testsupport::expectPattern(buffer.data(), kFirst, kRead);
}

INSTANTIATE_TEST_SUITE_P(
    Paces, BufferQueueWake,
    ::testing::Values(
        // Chunks the ordinary way (an HTTP source): woken once its bytes are there.
        WakeCase{"OrdinaryChunksAtOnce", true, false, 4, 0, false},
        WakeCase{"OrdinaryChunksWithPauses", true, false, 0, 4, false},
        WakeCase{"RoomChunksWithPauses", true, true, 0, 4, false},
        WakeCase{"RoomChunksAtOnceThenOneAfterAPause", true, true, 4, 1, false},
        WakeCase{"RoomChunksAtOnceThenTheEnd", true, true, 4, 0, true},
        // Its bytes came at memory speed, then the writer fell silent (a
        // slow disk): the read goes on with them, the stream is not restarted.
        WakeCase{"RoomChunksAtOnceThenSilence", true, true, 4, 0, false},
        // 64 KiB wanted and a quarter of the 64 blocks more.
        WakeCase{"RoomChunksAtOnceUpToTheMargin", true, true, 4 + 32, 0, false},
        // The first read (as any after a jump) wants its bytes and no more.
        WakeCase{"FirstReadRoomChunksAtOnce", false, true, 4, 0, false}),
    [](const ::testing::TestParamInfo<WakeCase>& p) { return std::string(p.param.name); });

}  // namespace
