// BufferQueue: construction, initialisation, release and destruction, and
// the block bookkeeping shared by the sink and reading sides.
#include "buffer/buffer_queue.h"

#include <cstring>

#include "buffer/buffer_block_pool_manager.h"
#include "diag/log.h"
#include "thread/sync_guard.h"
#include "thread/thread_engine.h"

namespace util {

std::atomic<int> BufferQueue::workerEnd{0};
std::atomic<bool> BufferQueue::overrun{false};

BufferQueue::BufferQueue(int bufferSize)
    : blockCount_(bufferSize / kBlockSize),
      totalCapacity_((bufferSize / kBlockSize) * kBlockSize),
      worker_(&BufferQueue::workerRun) {
  // Two blocks at least, for a size of 0 or 1 block and for a negative one.
  if (blockCount_ < 2) blockCount_ = 2;
  std::memset(previousHead_, 0, sizeof(previousHead_));
  std::memset(currentHead_, 0, sizeof(currentHead_));
  rdTail_ = blocks_.end();
  wtHead_ = blocks_.end();
  dumper_.read_usb_path();
}

bool BufferQueue::initialize(BufferQueueProducer* p) {
  SyncGuard queueGuard(*this);
  SyncGuard streamGuard(streamLock_);
  producer_ = p;
  if (initialised_) return true;
  if (blockCount_ > kMaxBlocks) {
    // A buffer no device can hold is refused rather than allocated until
    // memory runs out: the open fails and the handle's calls say so.
    CV_LOG(-4, "BufferQueue(%p) %lld blocks asked, beyond the limit of %lld",
           static_cast<void*>(this), blockCount_, kMaxBlocks);
    // Its owner releases the producer of a queue that failed: not ours to
    // touch any more.
    producer_ = nullptr;
    return false;
  }
  pool_ = BufferBlockPoolManager::_INS_.claimPool(static_cast<int>(kBlockSize));
  for (long long i = 0; i < blockCount_; ++i) {
    BufferBlock* block = pool_->pop();
    if (block == nullptr) {
      producer_ = nullptr;
      return false;
    }
    block->index = static_cast<uint32_t>(i);
    blocks_.push_back(block);
  }
  rdTail_ = blocks_.begin();
  wtHead_ = blocks_.begin();
  (*wtHead_)->setBeginningSeqNum(0, true);
  version_ = 0;
  setStatus(STREAM_IDLE);
  ThreadEngine::_INS_.initialize();
  initialised_ = true;
  return true;
}

void BufferQueue::setStatus(int status) {
  SyncGuard guard(statusLock_);
  streamStatus_ = status;
}

bool BufferQueue::isFinalStatus(int status, int retry) const {
  return status == STREAM_CANCELED || status == STREAM_NOT_FOUND ||
         status == STREAM_NOT_AVAILABLE ||
         ((status == STREAM_ERROR || status == STREAM_TIMEOUT) && retry >= 2);
}

bool BufferQueue::needExit() {
  int status = streamStatus_;
  int retry = retryCount_;
  if (status == STREAM_CANCELED || status == STREAM_NOT_FOUND ||
      status == STREAM_NOT_AVAILABLE) {
    CV_LOG(0, "stream status is :%d", status);
    return true;
  }
  if ((status == STREAM_ERROR || status == STREAM_TIMEOUT) && retry >= 2) {
    CV_LOG(0, "stream status is :%d, retry finished:%d times", status, retry);
    return true;
  }
  return false;
}

void BufferQueue::release() {
  {
    SyncGuard guard(streamLock_);
    if (released_) return;
    released_ = true;
    setStatus(STREAM_CANCELED);
    streamLive_ = false;
    streamLock_.notifyAll();
  }
  CV_LOG(0, "release buffer queue %p", static_cast<void*>(this));
  stopMonitor();
  // Scheduled restarts are withdrawn first so none can start the worker
  // again once it is stopped below.
  waitForTasks();
  if (producer_ != nullptr) producer_->setBreak();
  stopProducerRun();
  worker_.stop(true);
}

void BufferQueue::waitForTasks() {
  ThreadEngine::_INS_.cancelAll(this);
  SyncGuard guard(taskLock_);
  while (pendingTasks_ > 0) taskLock_.wait();
}

BufferQueue::~BufferQueue() {
  CV_LOG(2, "~buffer begin");
  // Returns any waiting reader or writer before the queue lock is taken: a
  // sleeping reader holds it.
  release();
  SyncGuard queueGuard(*this);
  worker_.stop(true);
  SyncGuard streamGuard(streamLock_);
  if (pool_ != nullptr) {
    if (BufferBlockPoolManager::_INS_.getTotalMemorySize() < kBlockRetentionLimit) {
      for (BufferBlock* block : blocks_) pool_->push(block);
    } else {
      int count = static_cast<int>(blocks_.size());
      for (BufferBlock* block : blocks_) delete block;
      pool_->reduceblocksize(count);
      CV_LOG(-4, "BufferQueue(%p) deleck block count:%d", static_cast<void*>(this), count);
    }
    BufferBlockPoolManager::_INS_.declaimPool(pool_);
    pool_ = nullptr;
  }
  blocks_.clear();
  CV_LOG(-4, "BufferQueue(%p) poolManagersize:%lld", static_cast<void*>(this),
         BufferBlockPoolManager::_INS_.getTotalMemorySize());
  CV_LOG(2, "~buffer end");
}

BufferQueue::BlockIt BufferQueue::selectBlockToWrite(bool forStreaming) {
  BlockIt last = std::prev(blocks_.end());
  if ((*last)->isUnused()) {
    CV_LOG(2, "select unused block");
    return last;
  }
  if (rdTail_ == blocks_.begin()) {
    CV_LOG(2, "select block %d", static_cast<int>((*last)->index));
    if (forStreaming && last == wtHead_) {
      CV_LOG(2, "block is in writing %d and buffer isn't in feeding status",
             static_cast<int>((*last)->index));
      return blocks_.end();
    }
    return last;
  }
  if (forStreaming && wtHead_ == blocks_.begin()) {
    if (rdTail_ != last) return last;
    CV_LOG(2, "error !!!!!! write point at tail but read point at head");
    return blocks_.end();
  }
  CV_LOG(2, "rdtail is not begin, block %d", static_cast<int>((*blocks_.begin())->index));
  return blocks_.begin();
}

bool BufferQueue::checkErrorInsert(BlockIt it) {
  bool good;
  BlockIt next = std::next(it);
  if (it == blocks_.begin()) {
    good = next == blocks_.end() || (*next)->getBeginningSeqNum() == 0 ||
           (*it)->getBeginningSeqNum() < (*next)->getBeginningSeqNum();
  } else {
    good = (*std::prev(it))->getBeginningSeqNum() < (*it)->getBeginningSeqNum();
  }
  if (!good) {
    CV_LOG(2, "inserted one is id:%d, %lld", static_cast<int>((*it)->index),
           (*it)->getBeginningSeqNum());
    CV_LOG(2, "rdTail:%d, wtHead:%d", static_cast<int>((*rdTail_)->index),
           static_cast<int>((*wtHead_)->index));
    dumpBuffer(false);
  }
  return good;
}

void BufferQueue::flushBuffer(BlockIt it) {
  for (; it != blocks_.end(); ++it) {
    if ((*it)->getBeginningSeqNum() == 0) break;
    (*it)->setBeginningSeqNum(0, true);
  }
}

void BufferQueue::resetBlock(BlockIt it) {
  (*it)->setBeginningSeqNum(0, true);
  // Spliced rather than re-inserted, so iterators to the block stay valid;
  // callers still set wtHead again as the block now sits at the end.
  blocks_.splice(blocks_.end(), blocks_, it);
}

bool BufferQueue::cacheHeadToCheck(unsigned char* data, unsigned long size) {
  SyncGuard guard(streamLock_);
  unsigned long room = static_cast<unsigned long>(kBlockSize - currentHeadCount_);
  unsigned long n = size < room ? size : room;
  std::memcpy(currentHead_ + currentHeadCount_, data, n);
  currentHeadCount_ += static_cast<int>(n);
  if (currentHeadCount_ < kBlockSize) return true;
  bool different = previousHeadCount_ < kBlockSize ||
                   std::memcmp(previousHead_, currentHead_, sizeof(currentHead_)) != 0;
  std::memcpy(previousHead_, currentHead_, sizeof(previousHead_));
  previousHeadCount_ = currentHeadCount_;
  CV_LOG(1, "have compared the new connection is different with previous connection");
  if (different) return true;
  CV_LOG(1, "The new file part is the same as the old file, begin to terminate the connection");
  long long before = contentSize_;
  contentSize_ = (*wtHead_)->endSeqNum();
  CV_LOG(1, "file size is realized again and changed from %lld to %lld", before,
         contentSize_.load());
  return false;
}

void BufferQueue::dumpBuffer(bool) {
  if (LOG_LEV < 3 || blocks_.empty()) return;
  CV_LOG(3, "begin to dump buffer");
  CV_LOG(3, "------------------------------\n");
  CV_LOG(3, "readOffset=%lld, read:%lld, read id=%d, wtHead id=%d, wtHead:%lld",
         readOffset_.load(), (*rdTail_)->getBeginningSeqNum(), static_cast<int>((*rdTail_)->index),
         static_cast<int>((*wtHead_)->index), (*wtHead_)->getBeginningSeqNum());
  for (BufferBlock* block : blocks_) {
    if (block->getBeginningSeqNum() == 0) continue;
    CV_LOG(3, "s %2d: %9lld ~ %9lld\n", static_cast<int>(block->index),
           block->getBeginningSeqNum(), block->endSeqNum());
  }
  CV_LOG(3, "------------------------------\n");
}

std::list<std::pair<long long, unsigned long>> BufferQueue::blockMap() {
  SyncGuard guard(streamLock_);
  std::list<std::pair<long long, unsigned long>> map;
  for (BufferBlock* block : blocks_) {
    if (!block->isUnused()) map.emplace_back(block->getBeginningSeqNum(), block->payloadSize());
  }
  return map;
}

}  // namespace util
