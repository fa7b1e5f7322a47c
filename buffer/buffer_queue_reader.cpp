// BufferQueue, reading side: read, seek, breakRead and the buffered-size
// queries, and the waiting copy loop (fill, easyFill) under the stream lock.
#include <sys/time.h>

#include "buffer/buffer_queue.h"
#include "diag/log.h"
#include "thread/sync_guard.h"

namespace util {

namespace {
long long nowMs() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<long long>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}
}  // namespace

int BufferQueue::read(char* buffer, unsigned long size, unsigned long* got,
                      unsigned long breaksSeen) {
  *got = 0;
  SyncGuard queueGuard(*this);
  if (!initialised_) return SMFR_FAILED;
  seekHappened_ = false;
  if (!workerStarted_) {
    workerStarted_ = true;
    {
      SyncGuard guard(streamLock_);
      // The first connection starts where the first reader is, not at 0.
      BlockIt block;
      rangeBegin_ = seekable_ ? startOfMissing(readOffset_, &block) : 0;
      activeWorkNum_ = 1;
      startPending_ = true;
    }
    startWorker();
    startMonitorFeeding();
  }
  int status = streamStatus_;
  int retry = retryCount_;
  CV_LOG(2, "read offset:%lld, read size:%d, needExit :%d", readOffset_.load(),
         static_cast<int>(size), isFinalStatus(status, retry) ? 1 : 0);
  if (isFinalStatus(status, retry)) {
    if (status == STREAM_ERROR || status == STREAM_TIMEOUT) {
      CV_LOG(0, "stream status is :%d, retry finished:%d times", status, retry);
    } else {
      CV_LOG(0, "stream status is :%d", status);
    }
    return READ_FINISHED;
  }
  long long known = contentSize_;
  if (known != 0 && readOffset_ >= known) {
    CV_LOG(2, "EOF !!!!!!!!!");
    return SMFR_EOF;
  }
  SyncGuard streamGuard(streamLock_);
  readInProgress_ = true;
  ++readSerial_;
  if (writerWaiting_ || breakWaiters_ > 0) streamLock_.notifyAll();
  if (isFinalStatus(streamStatus_, retryCount_)) {
    readInProgress_ = false;
    CV_LOG(0, "read failed in buffer stream status:%d", streamStatus_.load());
    return SMFR_FAILED;
  }
  if (breaksSeen != kNoBreakCheck && breaks_ != breaksSeen) {
    readInProgress_ = false;
    CV_LOG(2, "broken before reading");
    return SMFR_FAILED;
  }
  // Only a read going on where the previous one ended may be left asleep
  // for a margin (wakePoint): a read after a jump wants its bytes and no
  // more.
  sequentialRead_ = readOffset_ == lastReadEnd_;
  long long begin = nowMs();
  bool ok = fill(readOffset_, size, buffer, got, 0);
  lastReadEnd_ = readOffset_;
  long long spent = nowMs() - begin;
  if (spent >= 1001) {
    CV_LOG(-5, "BufferQueue(%p) read %d spend %lu ms", static_cast<void*>(this),
           static_cast<int>(*got), static_cast<unsigned long>(spent));
  }
  breakReadRequested_ = false;
  feedRequested_ = false;
  readInProgress_ = false;
  if (breakWaiters_ > 0 || (writerWaiting_ && writerCanGoOn())) streamLock_.notifyAll();
  if (*got < size) {
    CV_LOG(2, "read ERROR that request:%d != readed:%d, curOffset:%lld, status:%d",
           static_cast<int>(size), static_cast<int>(*got), readOffset_.load(),
           streamStatus_.load());
  }
  if (*got > 0 && dumper_.isEnabled()) {
    dumper_.read_to_file(readOffset_ - static_cast<long long>(*got),
                         reinterpret_cast<unsigned char*>(buffer), static_cast<unsigned int>(*got));
  }
  if (contentSize_ == 0 && producer_ != nullptr) contentSize_ = producer_->getContentSize();
  if (ok) {
    CV_LOG(2, "readcount:%d, readoffset:%lld, filesize:%lld", static_cast<int>(*got),
           readOffset_.load(), contentSize_.load());
    CV_LOG(2, "BufferQueue read ok");
    return READ_OK;
  }
  CV_LOG(2, "read fail %d", 0);
  CV_LOG(2, "readOffset=%lld, read:%lld, read id=%d, wtHead id=%d, wtHead:%lld",
         readOffset_.load(), (*rdTail_)->getBeginningSeqNum(), static_cast<int>((*rdTail_)->index),
         static_cast<int>((*wtHead_)->index), (*wtHead_)->getBeginningSeqNum());
  switch (streamStatus_) {
    case STREAM_END:
      return SMFR_FAILED;
    case STREAM_NOT_FOUND:
      return READ_NOT_FOUND;
    case STREAM_TIMEOUT:
      return READ_TIMEOUT;
    case STREAM_NOT_AVAILABLE:
      return READ_NOT_AVAILABLE;
    default:
      CV_LOG(0, "error status that read fail but status is ok %d", streamStatus_.load());
      return SMFR_FAILED;
  }
}

// Points rdTail at the block that holds or will hold `offset`: a used block
// first, else the write head, else the last used block before the offset.
// Blocks can be recycled while a reader sleeps, so this runs after every
// wait. REQUIRES: streamLock_ held.
void BufferQueue::relocateReader(long long offset) {
  if (!(*rdTail_)->isUnused() && (*rdTail_)->willContained(offset)) return;
  // Sequential reading moves on to the next block: tried before the scan.
  BlockIt next = std::next(rdTail_);
  if (next != blocks_.end() && !(*next)->isUnused() && (*next)->willContained(offset)) {
    rdTail_ = next;
    return;
  }
  BlockIt before = blocks_.end();
  for (BlockIt it = blocks_.begin(); it != blocks_.end(); ++it) {
    BufferBlock* b = *it;
    if (b->isUnused()) continue;
    if (b->willContained(offset)) {
      rdTail_ = it;
      return;
    }
    if (b->getBeginningSeqNum() <= offset) before = it;
  }
  if ((*wtHead_)->willContained(offset)) {
    rdTail_ = wtHead_;
    return;
  }
  rdTail_ = before != blocks_.end() ? before : blocks_.begin();
}

// The later write point at which a reader wanting the bytes up to `wanted`
// is woken while the writer delivers at memory speed (see streamIn): for a
// sequential read, a quarter of the buffer more, so the writer never waits
// for the reader because of it; not beyond the content's known end. A small
// queue wakes its reader exactly. REQUIRES: streamLock_ and the queue lock
// held.
long long BufferQueue::wakePoint(long long wanted) {
  if (!sequentialRead_ || blockCount_ < kWakeMarginMinBlocks) return wanted;
  long long wake = wanted + (blockCount_ / 4) * kBlockSize;
  long long known = contentSize_;
  if (known != 0 && wake > known) wake = known;
  if (knownEnd_ >= 0 && wake > knownEnd_) wake = knownEnd_;
  return wake > wanted ? wake : wanted;
}

// Back from a wait for data: a writer that woke us may wait to see that.
// REQUIRES: streamLock_ held.
void BufferQueue::readerAwake() {
  readerWaiting_ = false;
  ++readerWakes_;
  if (handOffWaiting_) streamLock_.notifyAll();
}

// Sleeps once for data. False when the read must end: break or final
// status. REQUIRES: streamLock_ held.
bool BufferQueue::waitForData(long long wakeAt, const char* breakText) {
  if (!breakReadRequested_ && !isFinalStatus(streamStatus_, retryCount_)) {
    readerWaiting_ = true;
    wakeAt_ = wakeAt;
    wakeLate_ = wakePoint(wakeAt);
    feedIfIdle();
    streamLock_.notifyAll();
    streamLock_.wait();
    readerAwake();
  }
  if (breakReadRequested_) {
    breakReadRequested_ = false;
    CV_LOG(2, "%s", breakText);
    streamLock_.notifyAll();
    return false;
  }
  if (needExit()) {
    CV_LOG(2, "needexit at fill");
    return false;
  }
  return true;
}

// Copies `size` bytes from `offset` into `buffer`, waiting for what is not
// there yet. The direction only picks the log lines: the block holding the
// offset is looked up directly. REQUIRES: streamLock_ held.
bool BufferQueue::fill(long long offset, unsigned long size, char* buffer, unsigned long* got,
                       int mode) {
  *got = 0;
  if (mode == 0) mode = (*rdTail_)->isForwarding(offset) ? 1 : 2;
  for (;;) {
    long long at = offset + static_cast<long long>(*got);
    relocateReader(at);
    BufferBlock* tail = *rdTail_;
    if (tail->willContained(at)) {
      if (*got > 0) {
        CV_LOG(2, mode == 1 ? "second fill %d, %d" : "second fill2 %d, %d", 1,
               static_cast<int>(*got));
      }
      CV_LOG(2, mode == 1 ? "begin to easyFill from %lld, count:%d"
                          : "begin to backward easyFill from %lld, count:%d",
             at, static_cast<int>(size - *got));
      unsigned long n = 0;
      bool ok = easyFill(at, size - *got, buffer + *got, &n, false);
      *got += n;
      if (!ok || needExit()) {
        CV_LOG(2, "needExit or ret fail");
        return false;
      }
      if (breakReadRequested_) {
        breakReadRequested_ = false;
        CV_LOG(2, mode == 1 ? "break out at fill FORWARD_1" : "break out at fill BACKWARD_1");
        streamLock_.notifyAll();
        return false;
      }
      long long known = contentSize_;
      if (*got == size || (known != 0 && known <= readOffset_)) return true;
      if (endReached(readOffset_)) return *got > 0;
      continue;
    }
    long long known = contentSize_;
    if (known != 0 && at >= known) return true;
    if (endReached(at)) return *got > 0;
    // Backward, the reader either stands in a gap behind held blocks or
    // before the first block held; each has its own lines.
    bool inGap = mode == 2 && !tail->isUnused() && tail->getBeginningSeqNum() <= at;
    const char* breakText = "break out at fill FORWARD";
    const char* wakeText = "wake up in fill";
    if (mode == 1) {
      CV_LOG(2, "wait and feeding = true seq=%lld, read:%lld, read id=%d, wtHead id=%d, wtHead:%lld",
             at, tail->getBeginningSeqNum(), static_cast<int>(tail->index),
             static_cast<int>((*wtHead_)->index), (*wtHead_)->getBeginningSeqNum());
      if (seekable_) feedRequested_ = true;
      CV_LOG(2, "wait in fill");
    } else if (inGap) {
      CV_LOG(2,
             "wait in backword finding  readOffset=%lld, read:%lld, read id=%d, wtHead id=%d, "
             "wtHead:%lld",
             at, tail->getBeginningSeqNum(), static_cast<int>(tail->index),
             static_cast<int>((*wtHead_)->index), (*wtHead_)->getBeginningSeqNum());
      feedRequested_ = true;
      breakText = "break out at fill BACKWARD";
      wakeText = "wake up in fill3";
    } else {
      CV_LOG(2, "wait in the first block, rd:%lld, offset:%lld", tail->getBeginningSeqNum(), at);
      feedRequested_ = true;
      breakText = "break out fill BACKWARD";
      wakeText = "wake up in fill BACKWARD";
    }
    // Woken once the writer holds all this read still wants (or the write
    // point jumps elsewhere, or its connection ends), not at every chunk on
    // the way there.
    long long wakeAt = at + static_cast<long long>(size - *got);
    if (known != 0 && wakeAt > known) wakeAt = known;
    if (!waitForData(wakeAt, breakText)) return false;
    CV_LOG(2, "%s", wakeText);
    if (mode == 2 && !inGap && !seekable_ && (*blocks_.begin())->getBeginningSeqNum() == 0) {
      // A source that cannot seek came back from its start: the bytes
      // wanted now arrive in order, as for any forward read.
      CV_LOG(1,
             "streaming is not seekable, upper layer seek to previous position, lumora need "
             "reconnect stream and read from begin of stream, so need to read forward\n");
      mode = 1;
    }
  }
}

bool BufferQueue::easyFill(long long offset, unsigned long size, char* buffer, unsigned long* got,
                           bool backward) {
  BufferBlock* block = *rdTail_;
  *got = 0;
  if (!block->willContained(offset)) {
    CV_LOG(2, "error, the argument error");
    return false;
  }
  unsigned long pos = static_cast<unsigned long>(offset - block->getBeginningSeqNum());
  for (;;) {
    unsigned long n = copyUnlocked(block, pos, buffer + *got, size - *got);
    CV_LOG(2, "output from block%d %d data, begin:%lld, payload:%d, seq = %lld",
           static_cast<int>(block->index), static_cast<int>(n), static_cast<long long>(pos),
           static_cast<int>(block->payloadSize()), block->getBeginningSeqNum());
    *got += n;
    readOffset_ += static_cast<long long>(n);
    long long known = contentSize_;
    if (*got == size || (known != 0 && readOffset_ >= known)) {
      CV_LOG(2, "easyFill specail, readOffset:%lld, size:%lld", readOffset_.load(),
             static_cast<long long>(size));
      return true;
    }
    pos += n;
    if (pos >= static_cast<unsigned long>(kBlockSize)) {
      CV_LOG(2, "easyFill");
      return true;
    }
    if (endReached(readOffset_)) return true;
    CV_LOG(2, "wait and feeding = false, begin index:%lld, readOffset:%lld, streamStatus:%d",
           block->getBeginningSeqNum(), readOffset_.load(), streamStatus_.load());
    // Data comes into this block only from a live connection writing it;
    // otherwise the reader asks for it like for any missing byte.
    if (block != *wtHead_ || !streamLive_) feedRequested_ = true;
    if (!breakReadRequested_ && !isFinalStatus(streamStatus_, retryCount_)) {
      readerWaiting_ = true;
      // All this read still wants, across block ends: the reader's place
      // (rdTail) stays on this block meanwhile, which only keeps the writer
      // from recycling blocks the reader has not read yet.
      long long wanted = readOffset_ + static_cast<long long>(size - *got);
      known = contentSize_;
      if (known != 0 && wanted > known) wanted = known;
      wakeAt_ = wanted;
      wakeLate_ = wakePoint(wanted);
      feedIfIdle();
      streamLock_.notifyAll();
      streamLock_.wait();
      readerAwake();
    }
    CV_LOG(2, "wake up at easyfill");
    if (breakReadRequested_) {
      breakReadRequested_ = false;
      CV_LOG(2, "break out at easyfill");
      streamLock_.notifyAll();
      return false;
    }
    if (needExit()) {
      CV_LOG(2, "need exit at easyfill");
      return false;
    }
    if (*got == size) return true;
    // The block was given up while we slept: let fill find the data again.
    if (*rdTail_ != block || !block->willContained(readOffset_) ||
        block->getBeginningSeqNum() + static_cast<long long>(pos) != readOffset_) {
      return true;
    }
  }
}

// The copy is the reader's main cost; under the stream lock it would stall
// the writer for its whole length (and a writer blocked on the mutex sleeps:
// two context switches). Bytes below the payload count are never written
// again until the block is rebased, and a pinned block is not rebased (see
// the class comment). REQUIRES: streamLock_ held (let go and taken again).
unsigned long BufferQueue::copyUnlocked(BufferBlock* block, unsigned long pos, char* dst,
                                        unsigned long len) {
  unsigned long n = block->outSize(pos, len);
  if (n == 0) return 0;
  copyBlock_ = block;
  {
    SyncUnguard unguard(streamLock_);
    block->copyOut(pos, dst, n);
  }
  copyBlock_ = nullptr;
  if (copyAwaited_) {
    copyAwaited_ = false;
    streamLock_.notifyAll();
  }
  return n;
}

// REQUIRES: streamLock_ held. The way out is the end of the copy, which
// cannot block.
void BufferQueue::awaitReaderCopy() {
  while (copyBlock_ != nullptr) {
    copyAwaited_ = true;
    streamLock_.wait();
  }
}

// Whether a writer waiting for a block is worth waking: a quarter of the
// blocks (at least one) can be recycled. Waking it for every freed block
// costs two context switches per 32 KiB; a reader about to sleep wakes it
// regardless. REQUIRES: streamLock_ held.
bool BufferQueue::writerCanGoOn() {
  long long wanted = blockCount_ / 4;
  if (wanted < 1) wanted = 1;
  long long free = 0;
  for (BlockIt it = blocks_.begin(); it != rdTail_ && free < wanted; ++it) ++free;
  if (free < wanted && blocks_.back()->isUnused()) ++free;
  return free >= wanted;
}

bool BufferQueue::seek(long long offset, long long* newOffset) {
  CV_LOG(2, "Seek in ...");
  {
    SyncGuard guard(*this);
    CV_LOG(2, "old offset:%lld, wanted offset:%lld", readOffset_.load(), offset);
    long long known = contentSize_;
    if ((known != 0 && known < offset) || offset < 0) {
      *newOffset = readOffset_;
      return false;
    }
    {
      SyncGuard streamGuard(streamLock_);
      readOffset_ = offset;
    }
    *newOffset = offset;
    seekHappened_ = true;
  }
  int status = streamStatus_;
  int retry = retryCount_;
  if (isFinalStatus(status, retry)) {
    if (status == STREAM_ERROR || status == STREAM_TIMEOUT) {
      CV_LOG(0, "stream status is :%d, retry finished:%d times", status, retry);
    } else {
      CV_LOG(0, "stream status is :%d", status);
    }
    return false;
  }
  return true;
}

void BufferQueue::breakRead() {
  if (producer_ != nullptr) producer_->setBreak();
  SyncGuard guard(streamLock_);
  ++breaks_;
  CV_LOG(0, "Going to break read");
  if (readInProgress_) {
    breakReadRequested_ = true;
    unsigned long serial = readSerial_;
    ++breakWaiters_;
    // Only the read running now is waited for; a later one is not ours.
    while (readInProgress_ && readSerial_ == serial) {
      CV_LOG(0, "bread end request but read is running");
      streamLock_.notifyAll();
      streamLock_.wait();
      CV_LOG(0, "bread read end");
    }
    --breakWaiters_;
  }
  CV_LOG(0, "Have broken from reading");
}

long long BufferQueue::getBufferedSize(long long offset) {
  SyncGuard guard(streamLock_);
  if (blocks_.empty()) return 0;
  BlockIt found = blocks_.end();
  if ((*rdTail_)->willContained(offset)) {
    found = rdTail_;
  } else {
    for (BlockIt it = blocks_.begin(); it != blocks_.end(); ++it) {
      if ((*it)->willContained(offset)) {
        found = it;
        break;
      }
    }
  }
  if (found == blocks_.end()) return 0;
  BlockIt last = found;
  if (contiguityCheckPending_) {
    BlockIt it = found;
    for (;;) {
      BlockIt next = std::next(it);
      if (next == blocks_.end()) {
        contiguityCheckPending_ = false;
        break;
      }
      if ((*next)->getBeginningSeqNum() != (*it)->endSeqNum()) break;
      it = next;
    }
    last = it;
  } else {
    last = wtHead_;
  }
  return ((*last)->getBeginningSeqNum() - offset) + static_cast<long long>((*last)->payloadSize());
}

bool BufferQueue::isReaderWaiting() {
  SyncGuard guard(streamLock_);
  return readerWaiting_;
}

long long BufferQueue::getMiniBlockOffset() {
  CV_LOG(2, "BufferQueue: return begin buffer seq !!");
  // Locked, although callers never race a writer on it, to stay race-free.
  SyncGuard guard(streamLock_);
  if (blocks_.empty()) return 0;
  return blocks_.front()->getBeginningSeqNum();
}

void BufferQueue::resetErrorStatus() {
  SyncGuard guard(streamLock_);
  int status = streamStatus_;
  if (status == STREAM_CANCELED || status == STREAM_NOT_FOUND || status == STREAM_TIMEOUT) {
    setStatus(STREAM_IDLE);
  }
}

}  // namespace util
