// util::BufferBlockPool: the spare blocks of one block size, recycled first
// in, first out.
//
// Owned by BufferBlockPoolManager::_INS_ while claimed. Any thread may pop or
// push; the pool's own lock (the Semaphore base) guards every field for those
// two. release() takes no lock: its caller holds the manager's lock and the
// pool is no longer claimed by anyone.
#ifndef CORVANE_BUFFER_BUFFER_BLOCK_POOL_H_
#define CORVANE_BUFFER_BUFFER_BLOCK_POOL_H_

#include <cstdint>
#include <list>

#include "buffer/buffer_block.h"
#include "thread/semaphore.h"

namespace util {

class BufferBlockPool : public Semaphore {
 public:
  explicit BufferBlockPool(int blockSize);
  // Empties the list nodes; destroys no block.
  ~BufferBlockPool() override;

  // A spare block, or a new zero-filled one. Never null.
  BufferBlock* pop();
  // Takes a block back, emptied and rebased to 0 with index 0.
  void push(BufferBlock* block);
  // Destroys the spare blocks when nobody holds the pool; always forgets
  // every block. REQUIRES: the manager's lock held.
  void release();
  // Writes off `n` blocks their queue destroyed instead of returning.
  bool reduceblocksize(int n);

  int blockSize() const { return blockSize_; }
  uint32_t blockCount();
  uint32_t freeCount();
  uint32_t dereferencount() const { return referenceCount_; }
  bool deletedFlag() const { return deleted_; }

 private:
  friend class BufferBlockPoolManager;  // reference count, under its lock

  bool deleted_ = true;
  int blockSize_;
  uint32_t blockCount_ = 0;
  uint32_t freeCount_ = 0;
  uint32_t referenceCount_ = 0;
  std::list<BufferBlock*> freeList_;
};

}  // namespace util

#endif  // CORVANE_BUFFER_BUFFER_BLOCK_POOL_H_
