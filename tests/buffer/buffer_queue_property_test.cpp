// Random seek and read sequences over content of many sizes and buffers of
// several block counts: every byte read must be the source's byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "buffer/buffer_queue.h"
#include "support/pattern_producer.h"

namespace {

using testsupport::PatternProducer;
using testsupport::patternByte;
using util::BufferQueue;

class RandomAccess : public ::testing::TestWithParam<std::tuple<long long, int>> {};

// One read as a client makes it: repeated until the wanted bytes or the end.
void readAndCheck(BufferQueue& queue, long long size, long long offset, unsigned long want,
                  std::vector<char>& buffer, const std::string& where) {
  long long at = 0;
  ASSERT_TRUE(queue.seek(offset, &at)) << where;
  unsigned long expected =
      static_cast<unsigned long>(std::max(0LL, std::min<long long>(want, size - offset)));
  unsigned long total = 0;
  while (total < expected) {
    unsigned long got = 0;
    int result = queue.read(buffer.data() + total, expected - total, &got);
    ASSERT_EQ(0, result) << where << " at " << offset + static_cast<long long>(total);
    ASSERT_GT(got, 0u) << where;
    total += got;
  }
  for (unsigned long i = 0; i < total; ++i) {
    ASSERT_EQ(patternByte(offset + static_cast<long long>(i)), static_cast<unsigned char>(buffer[i]))
        << where << " byte " << offset + static_cast<long long>(i);
  }
  if (expected == 0) {
    unsigned long got = 0;
    int result = queue.read(buffer.data(), want, &got);
    EXPECT_TRUE(result != 0 || got == 0) << where;
  }
}

TEST_P(RandomAccess, EveryByteIsRight) {
  const long long size = std::get<0>(GetParam());
  const int blocks = std::get<1>(GetParam());
  for (unsigned seed : {1u, 7u, 42u}) {
    PatternProducer producer(size);
    BufferQueue queue(blocks * 32768);
    ASSERT_TRUE(queue.initialize(&producer));
    producer.setOut(&queue);
    std::mt19937_64 rng(seed);
    std::vector<char> buffer(300 * 1024);
    long long position = 0;
    for (int op = 0; op < 30; ++op) {
      long long offset = position;
      switch (rng() % 6) {
        case 0:  // far, anywhere
          offset = size > 0 ? static_cast<long long>(rng() % static_cast<unsigned long long>(size + 1)) : 0;
          break;
        case 1:  // near forward
          offset = std::min(size, position + static_cast<long long>(rng() % 70000));
          break;
        case 2:  // near backward
          offset = std::max(0LL, position - static_cast<long long>(rng() % 70000));
          break;
        case 3:  // to the end
          offset = std::max(0LL, size - static_cast<long long>(rng() % 40000));
          break;
        default:  // go on where the last read stopped
          break;
      }
      unsigned long want = 1 + static_cast<unsigned long>(rng() % (300 * 1024));
      if (rng() % 3 == 0) want = 1 + static_cast<unsigned long>(rng() % 100);
      std::string where = "size " + std::to_string(size) + " blocks " + std::to_string(blocks) +
                          " seed " + std::to_string(seed) + " op " + std::to_string(op);
      readAndCheck(queue, size, offset, want, buffer, where);
      if (HasFatalFailure()) return;
      position = std::min(size, offset + static_cast<long long>(want));
    }
    queue.release();
  }
}

INSTANTIATE_TEST_SUITE_P(
    SizesAndBuffers, RandomAccess,
    ::testing::Combine(::testing::Values(0LL, 1LL, 16383LL, 16384LL, 32767LL, 32768LL, 32769LL,
                                         2LL * 1024 * 1024 - 1, 2LL * 1024 * 1024,
                                         2LL * 1024 * 1024 + 1, 10LL * 1024 * 1024 + 123),
                       ::testing::Values(2, 3, 64)));

}  // namespace
