// BufferQueue, stream events: how a producer's events move the stream status
// and restart the connection (notifyStreamException, resetStreaming).
#include "buffer/buffer_queue.h"

#include "diag/log.h"
#include "thread/sync_guard.h"
#include "thread/thread_engine.h"

namespace util {

void BufferQueue::resetStreaming() {
  if (released_) return;
  version_ = version_ + 1;
  activeWorkNum_ = activeWorkNum_ + 1;
  CV_LOG(0, "activeWorkNum:%d", activeWorkNum_.load());
  streamLive_ = false;
  startPending_ = true;
  retryPending_ = false;
  // A writer sleeping for a free block belongs to the superseded connection.
  if (writerWaiting_) streamLock_.notifyAll();
  {
    SyncGuard guard(taskLock_);
    ++pendingTasks_;
  }
  ThreadEngine::_INS_.requestExecute(&BufferQueue::reconnectTask, this, this);
}

void BufferQueue::notifyStreamException(int event) {
  CV_LOG(0, "stream event %d", event);
  SyncGuard guard(streamLock_);
  ++activity_;
  int status = streamStatus_;
  if (status == STREAM_RESETTING) {
    setStatus(STREAM_IDLE);
    streamLock_.notifyAll();
    return;
  }
  if (status == STREAM_CANCELED || status == STREAM_NOT_FOUND ||
      status == STREAM_NOT_AVAILABLE) {
    CV_LOG(0, "stream status is :%d", status);
    return;
  }
  if ((status == STREAM_ERROR || status == STREAM_TIMEOUT) && retryCount_ >= 2) {
    CV_LOG(0, "stream status is :%d, retry finished:%d times", status, retryCount_.load());
    return;
  }
  switch (event) {
    case EVENT_STREAM_NORMAL:
      answered_ = true;
      if (status == STREAM_IDLE || contentSize_ == 0) {
        if (producer_ != nullptr) {
          contentSize_ = producer_->getContentSize();
          seekable_ = producer_->isRandomAccess();
        }
        CV_LOG(0, "STREAM_NORMAL seekable = %d, totalSize:%lld", seekable_ ? 1 : 0,
               contentSize_.load());
        if (!seekable_) {
          previousHeadCount_ = 0;
          currentHeadCount_ = 0;
        }
      }
      setStatus(STREAM_NORMAL);
      streamLock_.notifyAll();
      break;
    case EVENT_STREAM_ERROR:
      retryCount_ = retryCount_ + 1;
      setStatus(STREAM_ERROR);
      if (retryCount_ < 2) {
        streamLock_.notifyAll();
        resetRequested_ = true;
        CV_LOG(-4, "reset cause of STREAM_ERROR");
        restartAfterFailure();
      } else {
        CV_LOG(-4, "retry finished in not available error");
        streamLive_ = false;
        streamLock_.notifyAll();
      }
      break;
    case EVENT_STREAM_DEAD:
      CV_LOG(0, "reset cause of STREAM_DEAD");
      restartAfterFailure();
      streamLock_.notifyAll();
      break;
    case EVENT_STREAM_PARTIAL_END:
      handlePartialEnd();
      break;
    case EVENT_STREAM_TIMEOUT: {
      CV_LOG(0, "begin to delay 1 second before re-connection in timeout");
      setStatus(STREAM_TIMEOUT);
      resetRequested_ = true;
      int before = retryCount_;
      retryCount_ = before + 1;
      if (before < 1) {
        streamLock_.notifyAll();
        CV_LOG(-4, "reset stream cause of timeout");
        restartAfterFailure();
      } else {
        CV_LOG(-4, "retry finished in timeout");
        streamLive_ = false;
        streamLock_.notifyAll();
      }
      break;
    }
    case EVENT_STREAM_NOT_FOUND:
      setStatus(STREAM_NOT_FOUND);
      CV_LOG(-4, "File not found");
      streamLive_ = false;
      streamLock_.notifyAll();
      break;
    case EVENT_STREAM_NOT_AVAILABLE:
      setStatus(STREAM_NOT_AVAILABLE);
      CV_LOG(0, "retry finished in not available error");
      streamLive_ = false;
      streamLock_.notifyAll();
      break;
    case EVENT_STREAM_CANCEL:
      handleCancel();
      break;
    default:
      streamLock_.notifyAll();
      CV_LOG(0, "error !!! event hasn't been handled, canceled is:%d", 7);
      break;
  }
}

// The restart of an error, time-out or dead connection: from the end of the
// data held at the write point. REQUIRES: streamLock_ held.
void BufferQueue::restartAfterFailure() {
  rangeBegin_ = (*wtHead_)->endSeqNum();
  rangeCount_ = 0;
  resetStreaming();
}

// REQUIRES: streamLock_ held.
void BufferQueue::handleCancel() {
  streamLock_.notifyAll();
  if (!breakReadRequested_) {
    if (!overrun) {
      CV_LOG(0, "cancel without continuing");
      if (!connectionPending()) streamLive_ = false;
      return;
    }
    overrun = false;
    // A fresh event, as if the producer had reported the end itself.
    {
      SyncUnguard unguard(streamLock_);
      CV_LOG(0, "manually translate cancel action to partition end action");
      notifyStreamException(EVENT_STREAM_PARTIAL_END);
    }
    return;
  }
  setStatus(STREAM_CANCELED);
  streamLive_ = false;
  SyncUnguard unguard(streamLock_);
  CV_LOG(0, "cancel and go another connection");
}

}  // namespace util
