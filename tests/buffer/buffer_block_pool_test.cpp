// Blocks, pools and the pool manager's retention of spare blocks.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "buffer/buffer_block.h"
#include "buffer/buffer_block_pool_manager.h"
#include "buffer/buffer_queue.h"
#include "support/log_capture.h"

namespace {

using util::BufferBlock;
using util::BufferBlockPool;
using util::BufferBlockPoolManager;

TEST(BufferBlock, InCopiesUpToCapacityAndNothingWhenFull) {
  BufferBlock block(8);
  unsigned char src[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  EXPECT_EQ(5u, block.in(src, 5));
  EXPECT_EQ(3u, block.in(src + 5, 7));
  EXPECT_EQ(8u, block.payloadSize());
  EXPECT_EQ(0u, block.in(src, 4));
  EXPECT_EQ(8u, block.payloadSize());
  unsigned char dst[8] = {};
  unsigned long n = 0;
  block.out(2, dst, 10, &n);
  EXPECT_EQ(6u, n);
  EXPECT_EQ(0, std::memcmp(dst, src + 2, 6));
}

TEST(BufferBlock, ContainmentBoundariesAndNothingOutPastThePayload) {
  BufferBlock block(32768);
  block.setBeginningSeqNum(65536, true);
  std::vector<unsigned char> data(100, 1);
  block.in(data.data(), data.size());
  EXPECT_TRUE(block.isContained(65536));
  EXPECT_TRUE(block.isContained(65635));
  EXPECT_FALSE(block.isContained(65636));  // beginning + payload
  EXPECT_FALSE(block.isContained(65535));
  EXPECT_TRUE(block.willContained(65536 + 32767));
  EXPECT_FALSE(block.willContained(65536 + 32768));
  EXPECT_TRUE(block.isForwarding(65536));
  EXPECT_FALSE(block.isForwarding(65535));
  unsigned char dst[4];
  for (unsigned long from : {100ul, 200ul}) {  // past the payload, inside the capacity
    unsigned long n = 77;
    block.out(from, dst, 4, &n);
    EXPECT_EQ(0u, n) << from;
  }
  block.setBeginningSeqNum(0, true);
  EXPECT_EQ(0u, block.payloadSize());
}

TEST(BufferBlockPool, TwoClaimsShareOnePoolAndOneDeclaimKeepsSpares) {
  testsupport::LogCapture log(-4);
  BufferBlockPool* a = BufferBlockPoolManager::_INS_.claimPool(32768);
  BufferBlockPool* b = BufferBlockPoolManager::_INS_.claimPool(32768);
  ASSERT_EQ(a, b);
  EXPECT_EQ(2u, a->dereferencount());
  EXPECT_EQ(1, log.countPrefix("BufferBlockPoolManager("));  // created once
  BufferBlock* block = a->pop();
  unsigned char byte = 7;
  block->setBeginningSeqNum(98304, true);
  block->in(&byte, 1);
  block->index = 5;
  a->push(block);
  BufferBlockPoolManager::_INS_.declaimPool(a);
  EXPECT_TRUE(log.contains("declaimPool, pool->dereferencount() = 2"));
  EXPECT_EQ(1u, a->freeCount());
  BufferBlock* again = a->pop();
  EXPECT_EQ(block, again);
  EXPECT_EQ(0u, again->payloadSize());
  EXPECT_EQ(0, again->getBeginningSeqNum());
  EXPECT_EQ(0u, again->index);
  a->push(again);
  BufferBlockPoolManager::_INS_.declaimPool(a);
  EXPECT_EQ(0u, a->freeCount());
  EXPECT_TRUE(a->deletedFlag());
  EXPECT_EQ(0, BufferBlockPoolManager::_INS_.getTotalMemorySize());
}

TEST(BufferBlockPool, QueueReturnsBlocksBelowLimitWhileAnotherHoldsThePool) {
  util::BufferQueue keeper(65536);
  ASSERT_TRUE(keeper.initialize(nullptr));
  {
    util::BufferQueue queue(4 * 32768);
    ASSERT_TRUE(queue.initialize(nullptr));
    EXPECT_EQ(6 * 32768, BufferBlockPoolManager::_INS_.getTotalMemorySize());
  }
  EXPECT_EQ(6 * 32768, BufferBlockPoolManager::_INS_.getTotalMemorySize());
  EXPECT_EQ(4 * 32768, BufferBlockPoolManager::_INS_.getFreeMemorySize());
  util::BufferQueue reuse(4 * 32768);
  ASSERT_TRUE(reuse.initialize(nullptr));
  EXPECT_EQ(6 * 32768, BufferBlockPoolManager::_INS_.getTotalMemorySize());
  EXPECT_EQ(0, BufferBlockPoolManager::_INS_.getFreeMemorySize());
}

TEST(BufferBlockPool, AtThirtyTwoMebibytesAClosingQueueDestroysItsBlocks) {
  testsupport::LogCapture log(-4);
  util::BufferQueue big(32 * 1024 * 1024);  // 1024 blocks = the limit itself
  ASSERT_TRUE(big.initialize(nullptr));
  {
    util::BufferQueue small(3 * 32768);
    ASSERT_TRUE(small.initialize(nullptr));
    EXPECT_EQ(32 * 1024 * 1024 + 3 * 32768, BufferBlockPoolManager::_INS_.getTotalMemorySize());
  }
  int destroyed = 0;
  for (const std::string& text : log.texts()) {
    if (text.find(") deleck block count:3") != std::string::npos) ++destroyed;
  }
  EXPECT_EQ(1, destroyed);
  EXPECT_EQ(32 * 1024 * 1024, BufferBlockPoolManager::_INS_.getTotalMemorySize());
  EXPECT_EQ(0, BufferBlockPoolManager::_INS_.getFreeMemorySize());
}

}  // namespace
