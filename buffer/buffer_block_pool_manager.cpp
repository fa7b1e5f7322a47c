#include "buffer/buffer_block_pool_manager.h"

#include "diag/log.h"
#include "thread/init_order.h"
#include "thread/sync_guard.h"

namespace util {

BufferBlockPoolManager BufferBlockPoolManager::_INS_ CV_INIT_ORDER(CV_INIT_BLOCK_POOL_MANAGER);

BufferBlockPoolManager::~BufferBlockPoolManager() {
  // At exit: pools still claimed keep their blocks (their queues may outlive
  // us); only the detached, empty pool objects are ours to free.
  for (BufferBlockPool* pool : detached_) delete pool;
  detached_.clear();
}

BufferBlockPool* BufferBlockPoolManager::claimPool(int blockSize) {
  CV_LOG(3, "claimPool 1");
  SyncGuard guard(*this);
  CV_LOG(3, "claimPool 2");
  BufferBlockPool* found = nullptr;
  for (BufferBlockPool* pool : pools_) {
    if (pool->blockSize() == blockSize) {
      found = pool;
      CV_LOG(3, "claimPool 3");
      break;
    }
  }
  if (found == nullptr) {
    found = new BufferBlockPool(blockSize);
    pools_.push_back(found);
    CV_LOG(-4, "BufferBlockPoolManager(%p), create pool(%p)", static_cast<void*>(this),
           static_cast<void*>(found));
  }
  ++found->referenceCount_;
  CV_LOG(3, "claimPool 4");
  return found;
}

void BufferBlockPoolManager::declaimPool(BufferBlockPool* pool) {
  SyncGuard guard(*this);
  CV_LOG(-4, "declaimPool, pool->dereferencount() = %d", static_cast<int>(pool->referenceCount_));
  --pool->referenceCount_;
  if (pool->referenceCount_ == 0) {
    pool->release();
    pools_.remove(pool);
    detached_.push_back(pool);
    CV_LOG(-4, "BufferBlockPoolManager(%p), delete pool(%p) from poollist",
           static_cast<void*>(this), static_cast<void*>(pool));
    CV_LOG(-4, "BufferBlockPoolManager(%p), release pool(%p) memory, delete block : %d",
           static_cast<void*>(this), static_cast<void*>(pool), pool->deleted_ ? 1 : 0);
  }
  CV_LOG(3, "declaimPool2");
}

long long BufferBlockPoolManager::getTotalMemorySize() {
  SyncGuard guard(*this);
  long long total = 0;
  for (BufferBlockPool* pool : pools_) {
    total += static_cast<long long>(pool->blockCount()) * pool->blockSize();
  }
  return total;
}

long long BufferBlockPoolManager::getFreeMemorySize() {
  SyncGuard guard(*this);
  long long total = 0;
  for (BufferBlockPool* pool : pools_) {
    total += static_cast<long long>(pool->freeCount()) * pool->blockSize();
  }
  return total;
}

}  // namespace util
