// BufferQueue, feeding: where a new connection starts (fragmentStreaming,
// the continuation after a partial end), whether a reader needs one
// (needToFeed), and the feeding monitor that restarts a silent source.
//
// A source that cannot seek is asked like any other: from the first byte
// not held. It starts over at 0 on the wire and skips up to that offset
// itself, so the held blocks stay valid and a restart never collides with
// them (flushing them instead would throw away what the reader may still
// read, and cost the whole way from 0 again in blocks).
//
// Design: a connection is always started by the worker at rangeBegin, and
// the worker places the write point just before it starts: either at the
// end of a partly filled block that will contain the offset ("continue that
// block"), or in a block recycled and rebased to the block-aligned offset.
// Deciding where to start is therefore separate from touching blocks, and a
// decision taken while a restart is pending only moves rangeBegin.
#include <chrono>
#include <climits>

#include "buffer/buffer_queue.h"
#include "buffer/feed_monitor.h"
#include "diag/log.h"
#include "thread/sync_guard.h"

namespace util {

long long BufferQueue::alignLeft(long long offset) {
  if (offset >= 0) return offset & ~(kBlockSize - 1);
  return (offset + kBlockSize - 1) & ~(kBlockSize - 1);
}

bool BufferQueue::isHeld(long long offset) {
  for (BufferBlock* block : blocks_) {
    if (block->isContained(offset)) return true;
  }
  return false;
}

long long BufferQueue::startOfMissing(long long from, BlockIt* block) {
  long long pos = from;
  for (;;) {
    BlockIt found = blocks_.end();
    for (BlockIt it = blocks_.begin(); it != blocks_.end(); ++it) {
      if (!(*it)->isUnused() && (*it)->willContained(pos)) {
        found = it;
        break;
      }
    }
    if (found == blocks_.end()) {
      // A run ending with a full block is continued from that block: the
      // first chunk then takes the next block the way a running connection
      // does, waiting for the reader if every block holds unread data.
      // Recycling a block here instead could throw away the very bytes the
      // reader is about to read.
      for (BlockIt it = blocks_.begin(); it != blocks_.end(); ++it) {
        BufferBlock* b = *it;
        if (!b->isUnused() && b->sizeOfFree() == 0 && b->endSeqNum() == pos) {
          *block = it;
          return pos;
        }
      }
      *block = blocks_.end();
      return alignLeft(pos);
    }
    BufferBlock* b = *found;
    if (b->endSeqNum() > pos) {
      // Held up to the block's end: look on from there.
      pos = b->endSeqNum();
      if (b->sizeOfFree() > 0) {
        *block = found;
        return pos;
      }
      continue;
    }
    // The block stops short of `pos`: continue it; the few bytes before
    // `pos` come with the connection.
    *block = found;
    return b->endSeqNum();
  }
}

long long BufferQueue::prepareWriteHead(long long from) {
  BlockIt block;
  long long start = startOfMissing(from, &block);
  if (block != blocks_.end()) {
    CV_LOG(2, "directly use current block to fragmentStreaming");
    wtHead_ = block;
    followReader();
    return start;
  }
  // A block to give up: the reader's own block if it is empty, else an
  // unused one, else the one whose data lies furthest from the reader.
  long long reader = readOffset_;
  BlockIt victim = blocks_.end();
  if ((*rdTail_)->isUnused()) victim = rdTail_;
  for (BlockIt it = blocks_.begin(); victim == blocks_.end() && it != blocks_.end(); ++it) {
    if ((*it)->isUnused()) victim = it;
  }
  if (victim == blocks_.end()) {
    // Any block but the reader's qualifies, even one holding the reader's
    // own offset (rdTail may not have caught up with it yet): with two
    // blocks that is the only other one. Blocks the reader has still to read
    // on its way to `start` go last, farthest first among equals.
    bool bestAhead = true;
    long long farthest = LLONG_MIN;
    for (BlockIt it = blocks_.begin(); it != blocks_.end(); ++it) {
      if (it == rdTail_) continue;
      BufferBlock* b = *it;
      bool ahead = b->endSeqNum() > reader && b->getBeginningSeqNum() < start;
      long long distance = b->getBeginningSeqNum() > reader ? b->getBeginningSeqNum() - reader
                                                            : reader - b->endSeqNum();
      if ((bestAhead && !ahead) || (ahead == bestAhead && distance > farthest)) {
        bestAhead = ahead;
        farthest = distance;
        victim = it;
      }
    }
  }
  (*victim)->setBeginningSeqNum(start, true);
  BlockIt before = blocks_.begin();
  while (before != blocks_.end() &&
         (before == victim ||
          (!(*before)->isUnused() && (*before)->getBeginningSeqNum() < start))) {
    ++before;
  }
  blocks_.splice(before, blocks_, victim);
  wtHead_ = victim;
  contiguityCheckPending_ = true;
  if (std::next(victim) != blocks_.end()) checkErrorInsert(victim);
  followReader();
  return start;
}

// The block choice of the writer goes by rdTail, so rdTail must mark the
// reader's block at once, not only when the reader wakes: otherwise the
// writer could give up the very block the reader waits for.
// REQUIRES: streamLock_ held.
void BufferQueue::followReader() {
  if ((*wtHead_)->willContained(readOffset_)) rdTail_ = wtHead_;
}

bool BufferQueue::fragmentStreaming(long long offset, BlockIt it) {
  CV_LOG(2, "fragment from %lld, %d", offset,
         it == blocks_.end() ? -1 : static_cast<int>((*it)->index));
  BlockIt block;
  long long start = startOfMissing(offset, &block);
  long long size = contentSize_;
  if (size != 0 && start >= size) {
    // Everything from the offset to the end is held: nothing to fetch.
    CV_LOG(2, "the select block is the endIt, fragment is canceled");
    return true;
  }
  rangeBegin_ = start;
  rangeCount_ = 0;
  if (connectionPending()) {
    // The restart already scheduled starts from the new rangeBegin.
    CV_LOG(2, "another connection is in constructing");
    return true;
  }
  resetStreaming();
  return true;
}

bool BufferQueue::needToFeed() {
  if (!readInProgress_ || !feedRequested_ || released_) return false;
  if (isFinalStatus(streamStatus_, retryCount_)) return false;
  long long offset = readOffset_;
  long long size = contentSize_;
  if (size != 0 && offset >= size) return false;
  if (endReached(offset)) return false;
  return !isHeld(offset);
}

long long BufferQueue::steadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

bool BufferQueue::endReached(long long offset) const {
  return knownEnd_ >= 0 && offset >= knownEnd_;
}

// Called by a reader about to sleep for data: when no connection is running
// to bring it, the reader's wish starts one at once (rather than waiting for
// the monitor). REQUIRES: streamLock_ held.
void BufferQueue::feedIfIdle() {
  if (!needToFeed()) return;
  if (streamLive_ && !connectionPending()) {
    // The running connection's next chunk decides (streamIn), unless these
    // bytes are plainly not on its way: then it is given up now, since its
    // next chunk may be far off (a speed limit holds the producer between
    // chunks) and the reader would wait for it. A source that cannot seek
    // is left to come by, as streamIn does.
    long long offset = readOffset_;
    long long writeBegin = (*wtHead_)->getBeginningSeqNum();
    long long writeEnd = (*wtHead_)->endSeqNum();
    bool onItsWay = offset >= writeBegin && offset - writeEnd < kNearDistance;
    if (!seekable_ || onItsWay) return;
    CV_LOG(2, "begin to fragment streaming");
    fragmentStreaming(offset, rdTail_);
    return;
  }
  if (retryPending_ && steadyMs() < retryAfterMs_) return;  // the monitor starts it
  CV_LOG(2, "begin to fragment streaming");
  fragmentStreaming(readOffset_, rdTail_);
}

// REQUIRES: streamLock_ held.
void BufferQueue::handlePartialEnd() {
  CV_LOG(0, "[QM]get EVENT_STREAM_PARTIAL_END, now size: %lld", contentSize_.load());
  streamLock_.notifyAll();
  if (connectionPending()) {
    // The end of a connection already superseded.
    CV_LOG(0, "another connection is in constructing");
    return;
  }
  streamLive_ = false;
  long long end = producerPos_;
  long long size = contentSize_;
  bool delivered = end > connectionBegin_;
  if (!delivered && (size != 0 ? end < size : !answered_)) {
    // A connection that brought no byte (dropped after its headers, before
    // the source could say anything of the content, or at once later, or a
    // source that skips from 0 ended before the offset asked for) says
    // nothing about where the content ends: the size stays. It is tried
    // again from the same place after a back-off that doubles with each
    // empty connection in a row, so a server that always drops early is
    // neither hammered nor waited for without end.
    if (++silentRestarts_ > kMonitorMaxSilentRestarts) {
      setStatus(STREAM_NOT_AVAILABLE);
      CV_LOG(-4, "source silent after %d restarts, stream given up", kMonitorMaxSilentRestarts);
      return;
    }
    retryPending_ = true;
    long long backOff = static_cast<long long>(kEmptyRetryBaseMs) << (silentRestarts_ - 1);
    retryAfterMs_ = steadyMs() + backOff;
    CV_LOG(0, "no need to continue another stream for fragment");
    CV_LOG(0, "wait for new feeding request");
    return;
  }
  long long told = producer_ != nullptr ? producer_->getContentSize() : 0;
  if (told > 0 && told < size && told == end) {
    // A source that could not tell the size at the start (no length,
    // chunked, a range total of "*") knows it once a transfer reached the
    // end without fault; without this the queue would keep asking for bytes
    // past an end it cannot see.
    contentSize_ = told;
    size = told;
    CV_LOG(0, "setFileSize: %lld", told);
  } else if (connectionCount_ == 0 && (size == 0 || end > size)) {
    // A connection asked for everything ended here: that is the content's
    // size.
    contentSize_ = end;
    size = end;
    CV_LOG(0, "setFileSize: %lld", end);
  }
  if (size != 0 && end < size) {
    // Carried on at once while the connection made progress, whether or not
    // the source can seek (one that cannot skips to the offset itself).
    CV_LOG(0, "begin to fragment streaming");
    fragmentStreaming(end, wtHead_);
    return;
  }
  if (connectionCount_ == 0) knownEnd_ = end;
  setStatus(STREAM_END);
  CV_LOG(0, "Read end of file and notify all other thread to execute");
}

void BufferQueue::startMonitorFeeding() {
  if (monitorStarted_) return;
  monitorStarted_ = true;
  // Under the stream lock, against release(): a queue added after its
  // removal would be checked after it is gone.
  SyncGuard guard(streamLock_);
  if (!released_) FeedMonitor::instance().add(this, kMonitorPeriodMs);
}

void BufferQueue::stopMonitor() { FeedMonitor::instance().remove(this); }

void BufferQueue::fillMonitor() {
  SyncGuard guard(streamLock_);
  if (released_ || isFinalStatus(streamStatus_, retryCount_)) return;
  // A waiting reader whose next byte is held is not starved by the source:
  // it was left asleep for the margin of a writer at memory speed (streamIn)
  // that paused since, or it was woken and has not run yet (a loaded
  // machine). It goes on now, one period late at most; restarting a source
  // that delivers would only cost a connection. (The write point says
  // nothing here: it may be far ahead, past a gap.)
  if (readerWaiting_ && isHeld(readOffset_)) {
    CV_LOG(2, "reader's next byte is held: wake it");
    lastActivity_ = activity_;
    stallChecks_ = 0;
    streamLock_.notifyAll();
    return;
  }
  // A writer waiting for a free block while the reader waits for a byte no
  // block holds is no sign of life: only the reader's progress frees a
  // block, and the reader waits for the writer. (With several handles on
  // one file the reader may have moved back behind blocks it has not read,
  // so the writer's own way out, which needs the reader's block unchanged
  // since its wait began, does not fire.) Held for as many checks as a
  // silent source, it ends that connection for one from the reader's first
  // missing byte; blocks away from the reader are recycled for it.
  long long reader = readOffset_;
  if (readerWaiting_ && writerWaiting_ && !isHeld(reader) && !connectionPending()) {
    if (reader != blockedReader_) {
      blockedReader_ = reader;
      blockedChecks_ = 0;
    }
    if (++blockedChecks_ >= kMonitorStallChecks) {
      blockedChecks_ = 0;
      blockedReader_ = -1;
      CV_LOG(0, "writer waits for a block while reader waits at %lld, restart there", reader);
      restartForReader();
    }
    return;
  }
  blockedChecks_ = 0;
  blockedReader_ = -1;
  if (retryPending_) {
    if (readerWaiting_ && !streamLive_ && !connectionPending() && steadyMs() >= retryAfterMs_) {
      CV_LOG(0, "retry after an empty connection from %lld", readOffset_.load());
      restartForReader();
    }
    return;
  }
  // An HTTP transfer runs inside the worker; its own stall detection rules.
  if (!readerWaiting_ || workerBusy_ || writerWaiting_ || activity_ != lastActivity_) {
    lastActivity_ = activity_;
    stallChecks_ = 0;
    return;
  }
  if (++stallChecks_ < kMonitorStallChecks) return;
  stallChecks_ = 0;
  feedManually();
}

void BufferQueue::feedManually() {
  CV_LOG(0, "begin to fix connection");
  if (++silentRestarts_ > kMonitorMaxSilentRestarts) {
    setStatus(STREAM_NOT_AVAILABLE);
    CV_LOG(-4, "source silent after %d restarts, stream given up", kMonitorMaxSilentRestarts);
    streamLive_ = false;
    streamLock_.notifyAll();
    return;
  }
  restartForReader();
}

// Gives up the running connection (its chunks are refused from now on) for
// one from the first byte the reader lacks. REQUIRES: streamLock_ held.
void BufferQueue::restartForReader() {
  setStatus(STREAM_RESETTING);
  feedRequested_ = true;
  BlockIt block;
  rangeBegin_ = startOfMissing(readOffset_, &block);
  rangeCount_ = 0;
  resetStreaming();
  streamLock_.notifyAll();
}

}  // namespace util
