// BufferQueue, sink side: how a producer's chunks are placed into blocks
// (streamIn, directRoom) and what a stored chunk means for the connection
// (afterStore). The stream events are in buffer_queue_events.cpp.
#include <chrono>
#include <vector>

#include "buffer/buffer_queue.h"

#include "diag/log.h"
#include "thread/sync_guard.h"

namespace util {

// A refused chunk of a superseded or finished connection.
// REQUIRES: streamLock_ held.
bool BufferQueue::refuseChunk(int version) {
  int status = streamStatus_;
  bool final = isFinalStatus(status, retryCount_);
  if (final) CV_LOG(0, "stream status is :%d", status);
  CV_LOG(2, "ver = %d, version =%d, needExit = %d", version, version_.load(), final ? 1 : 0);
  // A partly filled write block of a superseded connection is given up, but
  // not once the current connection has taken it up as its write point (it
  // continues that block): that would drop bytes it relies on, and the
  // reader might not have reached them yet.
  bool currentWritesHere = streamLive_ && !startPending_ && (*wtHead_)->endSeqNum() == producerPos_;
  if (rdTail_ != wtHead_ && !currentWritesHere &&
      (*wtHead_)->payloadSize() != static_cast<unsigned long>(kBlockSize)) {
    resetBlock(wtHead_);
    wtHead_ = rdTail_;
  }
  return false;
}

bool BufferQueue::streamIn(void* data, unsigned long size, int version) {
  SyncGuard guard(streamLock_);
  if (blocks_.empty()) return false;  // not initialised
  long long endBefore = (*wtHead_)->endSeqNum();
  bool inPlace = false;
  std::vector<unsigned char> moved;
  if (roomPtr_ != nullptr && data == roomPtr_) {
    // The chunk was read into the room directRoom handed out. Taken where it
    // lies if nothing moved meanwhile; else it goes the ordinary way, copied
    // out first, as the room's bytes may be where it is to be written
    // (rare: a restart or a refusal came in between).
    BufferBlock* head = *wtHead_;
    inPlace = roomBlock_ == head && head->getBeginningSeqNum() == roomBegin_ &&
              head->payloadSize() == roomPayload_ && version == roomVersion_ &&
              head->sizeOfFree() >= size && version == version_ &&
              streamStatus_ == STREAM_NORMAL && seekable_ &&
              head->endSeqNum() == producerPos_;
    if (!inPlace) {
      moved.assign(roomPtr_, roomPtr_ + size);
      data = moved.data();
    }
  }
  roomPtr_ = nullptr;
  roomBlock_ = nullptr;
  bool goOn = storeChunk(data, size, version, inPlace);
  // Wake a sleeping reader when it can go on: the bytes it waits for are
  // all there, the write point jumped (anything but this chunk appended
  // right after the previous one), or this connection ended. Waking it per
  // chunk costs two context switches each and keeps both threads from
  // running side by side. While the chunks come at memory speed (read
  // straight into the blocks, the last one moments ago: a page-cached local
  // file) the reader is left asleep for a margin more (wakeLate_): the next
  // chunks take microseconds, and every wake-up it is spared saves two
  // context switches and two futex calls. A writer that may pause (HTTP, a
  // slow disk) wakes it as soon as its bytes are there.
  bool fast = false;
  if (inPlace) {
    long long now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::steady_clock::now().time_since_epoch())
                        .count();
    fast = now - lastChunkNs_ < kFastChunkGapNs;
    lastChunkNs_ = now;
  }
  if (readerWaiting_) {
    long long endAfter = (*wtHead_)->endSeqNum();
    if (!goOn || endAfter != endBefore + static_cast<long long>(size) ||
        endAfter >= (fast ? wakeLate_ : wakeAt_)) {
      streamLock_.notifyAll();
      // Only for a read after an open or a jump: a reader going on where it
      // stopped is woken a margin late and the two sides run side by side.
      if (!sequentialRead_) handToReader();
    }
  }
  return goOn;
}

// The reader just woken gets the lock before this writer stores its next
// chunk. A writer at full speed (a loopback or LAN server, a page-cached
// file) otherwise keeps the woken reader off a CPU for most of a scheduler
// slice on a device with few cores, where the server's side of the socket
// competes as well: a first read after an open or a seek then waits for
// the buffer to fill instead of for its own bytes. Bounded: the reader was
// notified and only needs the lock, which wait() lets go.
void BufferQueue::handToReader() {
  unsigned long wakes = readerWakes_;
  while (readerWaiting_ && readerWakes_ == wakes && !released_) {
    handOffWaiting_ = true;
    streamLock_.wait();
  }
  handOffWaiting_ = false;
}

void* BufferQueue::directRoom(unsigned long size, int version) {
  SyncGuard guard(streamLock_);
  roomPtr_ = nullptr;
  roomBlock_ = nullptr;
  if (blocks_.empty() || size == 0 || version != version_ || streamStatus_ != STREAM_NORMAL ||
      !seekable_ || (*wtHead_)->endSeqNum() != producerPos_) {
    return nullptr;
  }
  BufferBlock* head = *wtHead_;
  if (head->sizeOfFree() == 0) {
    // A full write block: move on to a new one now if one is free at once
    // (the same choice streamIn makes); anything harder goes the ordinary
    // way.
    long long end = head->getBeginningSeqNum() + kBlockSize;
    BlockIt next = std::next(wtHead_);
    if (next != blocks_.end() && (*next)->getBeginningSeqNum() != 0 &&
        (*next)->getBeginningSeqNum() <= end) {
      return nullptr;
    }
    BlockIt chosen = selectBlockToWrite(true);
    if (chosen == blocks_.end() || chosen == wtHead_ || *chosen == copyBlock_) return nullptr;
    takeWriteBlock(chosen, end);
    head = *wtHead_;
  }
  if (head->sizeOfFree() < size) return nullptr;
  roomPtr_ = head->freeRoom();
  roomBlock_ = head;
  roomBegin_ = head->getBeginningSeqNum();
  roomPayload_ = head->payloadSize();
  roomVersion_ = version;
  return roomPtr_;
}

// Makes the recycled block `chosen` the write block, right after the old
// one, rebased to `begin`. REQUIRES: streamLock_ held; chosen not pinned.
void BufferQueue::takeWriteBlock(BlockIt chosen, long long begin) {
  blocks_.splice(std::next(wtHead_), blocks_, chosen);
  wtHead_ = chosen;
  CV_LOG(2, "insert");
  CV_LOG(2, "move another block to the tail");
  if (std::next(wtHead_) == blocks_.end()) CV_LOG(2, "EEEEEEEEEEEEEEEEEEEEEEEEEEE");
  (*wtHead_)->setBeginningSeqNum(begin, true);
  if (std::next(wtHead_) != blocks_.end() && !checkErrorInsert(wtHead_)) {
    CV_LOG(2, "error insert block");
  }
  CV_LOG(2, "new block %d begin from %lld", static_cast<int>((*wtHead_)->index), begin);
}

// The sink's work for one chunk. REQUIRES: streamLock_ held.
bool BufferQueue::storeChunk(void* data, unsigned long size, int version, bool inPlace) {
  // A reader may be copying from a pinned block without the lock. Appending
  // at the write point of a seekable stream writes behind the bytes it
  // copies, and a new block is never the pinned one (see the choice below);
  // anything else (a refusal, a new write point, starting over) waits for
  // the copy first, here, before any decision, since the wait lets the lock
  // go.
  if (copyBlock_ != nullptr &&
      (version != version_ || streamStatus_ != STREAM_NORMAL || !seekable_ ||
       (*wtHead_)->endSeqNum() != producerPos_)) {
    awaitReaderCopy();
  }
  retryCount_ = 0;
  ++activity_;
  int status = streamStatus_;
  if (version != version_ || status == STREAM_CANCELED || status == STREAM_NOT_FOUND ||
      status == STREAM_NOT_AVAILABLE) {
    return refuseChunk(version);
  }
  if (status == STREAM_RESETTING) {
    setStatus(STREAM_IDLE);
    CV_LOG(2, "need reset stream");
    streamLive_ = false;
    return false;
  }
  // The producer's position and the write point must agree, or bytes would
  // land at the wrong offset: a mismatch (the head was given up meanwhile)
  // ends this connection and the data is asked for again.
  if ((*wtHead_)->endSeqNum() != producerPos_ && prepareWriteHead(producerPos_) != producerPos_) {
    CV_LOG(2, "write point lost at %lld, end connection", producerPos_);
    streamLive_ = false;
    if (readerWaiting_) feedIfIdle();
    return false;
  }
  BlockIt startHead = wtHead_;
  const unsigned char* src = static_cast<const unsigned char*>(data);
  unsigned long taken;
  // In place only as streamIn checked it: none of the checks above let the
  // lock go or moved the write block for such a chunk.
  if (inPlace) {
    (*wtHead_)->commitIn(size);
    taken = size;
  } else {
    taken = (*wtHead_)->in(src, size);
  }
  CV_LOG(2, "size:%d, sz:%d, rdblock:%d, wtblock:%d, usedSize:%d, begin from:%lld",
         static_cast<int>(size), static_cast<int>(taken), static_cast<int>((*rdTail_)->index),
         static_cast<int>((*wtHead_)->index), static_cast<int>((*wtHead_)->payloadSize()),
         (*wtHead_)->getBeginningSeqNum());
  producerPos_ += static_cast<long long>(size);
  if (size > 0) {
    silentRestarts_ = 0;
    resetRequested_ = false;
  }
  bool dropped = false;
  while (taken < size) {
    CV_LOG(2, "sz %d != size %d", static_cast<int>(taken), static_cast<int>(size));
    long long end = (*wtHead_)->getBeginningSeqNum() + kBlockSize;
    BlockIt next = std::next(wtHead_);
    if (next != blocks_.end() && (*next)->getBeginningSeqNum() != 0 &&
        (*next)->getBeginningSeqNum() <= end) {
      CV_LOG(2, "Server gives more than the client required, stop streaming");
      overrun = true;
      streamLive_ = false;
      return false;
    }
    BlockIt chosen = selectBlockToWrite(true);
    long long rdTailBefore = (*rdTail_)->getBeginningSeqNum();
    BufferBlock* rdTailBlock = *rdTail_;
    if (chosen != blocks_.end() && *chosen == copyBlock_) {
      // The reader copies from it right now: wait for the copy's end.
      copyAwaited_ = true;
      chosen = blocks_.end();
    }
    while (chosen == blocks_.end()) {
      CV_LOG(2, "wait in streamIn");
      writerWaiting_ = true;
      streamLock_.notifyAll();
      streamLock_.wait();
      CV_LOG(2, "wake up  in streamIn");
      writerWaiting_ = false;
      if (needExit() || version != version_) {
        streamLive_ = streamLive_ && version != version_;
        return false;
      }
      if (streamStatus_ == STREAM_RESETTING) {
        setStatus(STREAM_IDLE);
        streamLive_ = false;
        return false;
      }
      if (feedRequested_ && *rdTail_ == rdTailBlock &&
          (*rdTail_)->getBeginningSeqNum() == rdTailBefore) {
        CV_LOG(2, "break out while");
        CV_LOG(2, "break 2");
        dropped = true;
        break;
      }
      chosen = selectBlockToWrite(true);
      if (chosen != blocks_.end() && *chosen == copyBlock_) {
        copyAwaited_ = true;
        chosen = blocks_.end();
      }
    }
    if (dropped) break;
    if (chosen == wtHead_) {
      CV_LOG(2, "ERROR, shouldn't go here");
      dumpBuffer(false);
      awaitReaderCopy();
      resetBlock(wtHead_);
      wtHead_ = rdTail_;
      streamLive_ = false;
      return false;
    }
    takeWriteBlock(chosen, end);
    taken += (*wtHead_)->in(src + taken, size - taken);
    CV_LOG(2, "wtblock:%d, usedSize:%d, rdTail block:%d", static_cast<int>((*wtHead_)->index),
           static_cast<int>((*wtHead_)->payloadSize()), static_cast<int>((*rdTail_)->index));
  }
  if (dropped) {
    // Bytes were given up: this connection cannot go on consistently, and
    // the reader wants data elsewhere anyway.
    producerPos_ = (*wtHead_)->endSeqNum();
    streamLive_ = false;
    afterStore(startHead, true);
    if (readerWaiting_) feedIfIdle();
    return false;
  }
  bool goOn = afterStore(startHead, false);
  if (!goOn) streamLive_ = false;
  return goOn;
}

// Steps after the chunk is stored: whether this connection still serves the
// waiting reader. True to go on. REQUIRES: streamLock_ held.
bool BufferQueue::afterStore(BlockIt startHead, bool dropped) {
  // Starting a source that cannot seek over rebases blocks: not while a
  // reader copies (the writer may have slept for a block meanwhile).
  if (!seekable_) awaitReaderCopy();
  if (!feedRequested_) {
    CV_LOG(2, "end from streamIn");
    return true;
  }
  long long readOffset = readOffset_;
  BufferBlock* head = *wtHead_;
  if (!seekable_) {
    if (readOffset >= head->getBeginningSeqNum()) return true;
    CV_LOG(2, "readOffset: %lld, head seq: %lld, block seq: %lld\n", readOffset,
           head->getBeginningSeqNum(), (*startHead)->getBeginningSeqNum());
    if ((*startHead)->isContained(readOffset)) {
      CV_LOG(2, "the retrived data contains read data\n");
    } else {
      flushBuffer(blocks_.begin());
      if (blocks_.empty()) {
        CV_LOG(2, "error!!!!");
        return false;
      }
      wtHead_ = blocks_.begin();
      rdTail_ = blocks_.begin();
      (*wtHead_)->setBeginningSeqNum(0, true);
      feedRequested_ = false;
      CV_LOG(2, "reconnecting connection/stream");
      rangeBegin_ = 0;
      rangeCount_ = 0;
      resetStreaming();
      return false;
    }
  }
  BufferBlock* tail = *rdTail_;
  if (head->getBeginningSeqNum() <= readOffset) {
    CV_LOG(2, "rdTail:%d, %lld, wtHead:%d offset:%lld", static_cast<int>(tail->index),
           tail->getBeginningSeqNum(), static_cast<int>(head->index), readOffset);
    if (head->willContained(readOffset) || readOffset - head->endSeqNum() < kNearDistance) {
      CV_LOG(2, "rdTail:%lld,  wtHead:%lld", tail->getBeginningSeqNum(),
             head->getBeginningSeqNum());
      feedRequested_ = false;
      return !dropped;
    }
    CV_LOG(2, "never will be filled in this block [[[ %lld, %lld", readOffset,
           head->getBeginningSeqNum());
    if (readOffset - head->getBeginningSeqNum() < kNearDistance) {
      CV_LOG(2, "closed to current location [[[2");
      return !dropped;
    }
    BlockIt target;
    if (tail->getBeginningSeqNum() > readOffset) {
      target = rdTail_;
      CV_LOG(2, "fra1, %d ~ to end", static_cast<int>(tail->index));
    } else if (tail->getBeginningSeqNum() < readOffset &&
               tail->getBeginningSeqNum() >= head->getBeginningSeqNum()) {
      target = std::next(rdTail_);
      CV_LOG(2, "fra1, %d ~", static_cast<int>(tail->index));
    } else {
      target = std::next(wtHead_);
      CV_LOG(2, "fra1, %d ~", static_cast<int>(tail->index));
    }
    if (producer_ != nullptr) producer_->setStopWait();
    if (!fragmentStreaming(readOffset, target)) {
      setStatus(STREAM_ERROR);
      CV_LOG(2, "fragmentStreaming failed");
    } else {
      CV_LOG(2, "after fragmentStreaming, rdTail is %d", static_cast<int>((*rdTail_)->index));
    }
    return false;
  }
  if (tail->getBeginningSeqNum() > readOffset) {
    if (!needToFeed()) goto noFeed;
    CV_LOG(2, "(*rdTail):%lld > readOffset:%lld, rangeBegin:%lld", tail->getBeginningSeqNum(),
           readOffset, rangeBegin_.load());
    if (producer_ != nullptr) producer_->setStopWait();
    if (!fragmentStreaming(readOffset, rdTail_)) {
      setStatus(STREAM_ERROR);
      CV_LOG(2, "fragmentStreaming failed, needn't do it");
    } else {
      CV_LOG(2, "after fragmentStreaming, rdTail is %d", static_cast<int>((*rdTail_)->index));
    }
    return false;
  }
  if (tail->getBeginningSeqNum() < readOffset) {
    BlockIt next = std::next(rdTail_);
    if (!needToFeed()) goto noFeed;
    if (next == blocks_.end() ||
        (*next)->getBeginningSeqNum() == tail->getBeginningSeqNum() + kBlockSize) {
      CV_LOG(2, " last line ");
      return !dropped;
    }
    if (producer_ != nullptr) producer_->setStopWait();
    if (!fragmentStreaming(readOffset, next)) {
      setStatus(STREAM_ERROR);
      CV_LOG(2, "fragmentStreaming failed, error!!!!!!!!!!!!!!");
    } else {
      CV_LOG(2, "after fragmentStreaming, rdTail is %d", static_cast<int>((*rdTail_)->index));
    }
    return false;
  }
  CV_LOG(2, " last line ");
  return !dropped;
noFeed:
  CV_LOG(2, "needn't feed again2 readOffset=%lld, read:%lld, read id=%d, wtHead id=%d, wtHead:%lld",
         readOffset, tail->getBeginningSeqNum(), static_cast<int>(tail->index),
         static_cast<int>(head->index), head->getBeginningSeqNum());
  return !dropped;
}

}  // namespace util
