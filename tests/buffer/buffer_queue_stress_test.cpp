// Two readers with random seeks on one queue, breakRead from a third
// thread, then release: nothing may hang or race.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "buffer/buffer_queue.h"
#include "support/pattern_producer.h"
#include "support/wait.h"

namespace {

using testsupport::PatternProducer;
using testsupport::patternByte;
using util::BufferQueue;

TEST(BufferQueueStress, ReadersBreakAndReleaseRepeatedly) {
  const long long size = 3 * 1024 * 1024 + 11;
  for (int round = 0; round < 6; ++round) {
    PatternProducer producer(size);
    BufferQueue queue(4 * 32768);
    ASSERT_TRUE(queue.initialize(&producer));
    producer.setOut(&queue);
    // Seek and read are one step for a client (its file's read lock).
    std::mutex clientLock;
    std::atomic<int> finished{0};
    std::atomic<int> wrongBytes{0};
    auto reader = [&](unsigned seed) {
      std::mt19937_64 rng(seed);
      std::vector<char> buffer(100000);
      for (int i = 0; i < 200; ++i) {
        std::lock_guard<std::mutex> lock(clientLock);
        long long offset = static_cast<long long>(rng() % static_cast<unsigned long long>(size));
        long long at = 0;
        if (!queue.seek(offset, &at)) break;
        unsigned long got = 0;
        int result = queue.read(buffer.data(), 1 + rng() % buffer.size(), &got);
        for (unsigned long k = 0; k < got; ++k) {
          if (static_cast<unsigned char>(buffer[k]) != patternByte(offset + static_cast<long long>(k))) {
            ++wrongBytes;
            break;
          }
        }
        if (result == BufferQueue::READ_FINISHED) break;
      }
      ++finished;
    };
    std::thread a(reader, 11u + round);
    std::thread b(reader, 97u + round);
    std::thread breaker([&] {
      for (int i = 0; i < 20 && finished < 2; ++i) {
        queue.breakRead();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
    breaker.join();
    queue.release();
    ASSERT_TRUE(testsupport::waitFor([&] { return finished == 2; }, 20000)) << "round " << round;
    a.join();
    b.join();
    EXPECT_EQ(0, wrongBytes.load());
    EXPECT_EQ(BufferQueue::STREAM_CANCELED, queue.getStreamStatus());
  }
}

}  // namespace
