#include "buffer/buffer_block_pool.h"

#include "thread/sync_guard.h"

namespace util {

BufferBlockPool::BufferBlockPool(int blockSize) : blockSize_(blockSize) {}

BufferBlockPool::~BufferBlockPool() { freeList_.clear(); }

BufferBlock* BufferBlockPool::pop() {
  SyncGuard guard(*this);
  if (!freeList_.empty()) {
    BufferBlock* block = freeList_.front();
    freeList_.pop_front();
    --freeCount_;
    return block;
  }
  ++blockCount_;
  return new BufferBlock(blockSize_);
}

void BufferBlockPool::push(BufferBlock* block) {
  SyncGuard guard(*this);
  block->index = 0;
  block->setBeginningSeqNum(0, true);
  freeList_.push_back(block);
  ++freeCount_;
}

void BufferBlockPool::release() {
  if (referenceCount_ == 0 && freeCount_ != 0) {
    deleted_ = false;
    for (BufferBlock* block : freeList_) {
      delete block;
      deleted_ = true;
    }
  }
  blockCount_ = 0;
  freeCount_ = 0;
  freeList_.clear();
}

bool BufferBlockPool::reduceblocksize(int n) {
  SyncGuard guard(*this);
  blockCount_ -= static_cast<uint32_t>(n);
  return true;
}

uint32_t BufferBlockPool::blockCount() {
  SyncGuard guard(*this);
  return blockCount_;
}

uint32_t BufferBlockPool::freeCount() {
  SyncGuard guard(*this);
  return freeCount_;
}

}  // namespace util
