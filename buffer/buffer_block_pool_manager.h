// util::BufferBlockPoolManager: the process-wide registry of block pools, one
// per block size.
//
// The single instance, _INS_, has static storage and is built at load after
// the ThreadEngine. Queues claim a pool when they are initialised and declaim
// it when they are destroyed, from any thread. The manager's lock (the
// Semaphore base) guards the pool list and each pool's reference count; a
// pool's own lock may be taken inside it, never the other way round.
#ifndef CORVANE_BUFFER_BUFFER_BLOCK_POOL_MANAGER_H_
#define CORVANE_BUFFER_BUFFER_BLOCK_POOL_MANAGER_H_

#include <list>

#include "buffer/buffer_block_pool.h"
#include "thread/semaphore.h"

namespace util {

// Total pooled memory from which a closing queue destroys its blocks instead
// of returning them.
constexpr long long kBlockRetentionLimit = 33554432;

class BufferBlockPoolManager : public Semaphore {
 public:
  BufferBlockPoolManager() = default;
  ~BufferBlockPoolManager() override;

  // The pool of `blockSize`, created on first claim; one more reference.
  BufferBlockPool* claimPool(int blockSize);
  // One reference less; the last one frees the spare blocks and detaches the
  // pool from the registry.
  void declaimPool(BufferBlockPool* pool);
  long long getTotalMemorySize();
  long long getFreeMemorySize();

  static BufferBlockPoolManager _INS_;

 private:
  std::list<BufferBlockPool*> pools_;
  // Pools detached by their last declaim: nothing refers to them any more,
  // they are kept empty and freed with the manager at exit.
  std::list<BufferBlockPool*> detached_;
};

}  // namespace util

#endif  // CORVANE_BUFFER_BUFFER_BLOCK_POOL_MANAGER_H_
