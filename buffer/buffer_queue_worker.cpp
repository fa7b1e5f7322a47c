// BufferQueue, worker side: the feeding worker that starts each connection,
// and the reconnection task that restarts it on an engine thread.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "buffer/buffer_queue.h"
#include "diag/log.h"
#include "thread/rude_timer.h"
#include "thread/sync_guard.h"
#include "thread/thread_engine.h"

namespace util {

namespace {
const char kStartWorkerFailed[] =
    "start worker failed, errorrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrr";
}  // namespace

void* BufferQueue::workerRun(void* queue) {
  CV_LOG(1, "Worker is going to begin");
  static_cast<BufferQueue*>(queue)->workBegin();
  CV_LOG(1, "worker is successful to finsihed");
  return nullptr;
}

void BufferQueue::workBegin() {
  CV_LOG(1, "workBegin in");
  long long from = 0;
  long long count = 0;
  int version = 0;
  {
    SyncGuard guard(streamLock_);
    if (needExit()) {
      startPending_ = false;
      CV_LOG(1, "break from workBegin because of exit request");
      return;
    }
    if (resetRequested_) {
      SyncUnguard unguard(streamLock_);
      CV_LOG(1,
             "delay 1 second before next new connection (because this server only support one "
             "connection or one connection has been detected to be limited by server");
      // Whole seconds only: this returns at once, and the connection starts
      // without the pause the line announces, as deployed players expect.
      delay(300);
    }
    // The write point may move to any block: not while a reader copies
    // from one without the lock.
    awaitReaderCopy();
    // From here on this routine decides, without letting the lock go again
    // until the connection is placed: later wishes may start another. While
    // the lock was let go above, a reader wanting data saw this start still
    // pending and only moved rangeBegin, which is read below.
    startPending_ = false;
    if (wtHead_ == blocks_.end()) {
      CV_LOG(1, "crash here !!!!");
      return;
    }
    CV_LOG(1, "%lld + %lld", (*wtHead_)->endSeqNum(), rangeCount_.load());
    from = rangeBegin_;
    count = rangeCount_;
    long long size = contentSize_;
    if (count != 0 && (from + count >= size || from + count < 0)) {
      count = 0;
      CV_LOG(1, "error count!!!, revise to 0");
    }
    // The connection starts at the first byte not held, written where the
    // blocks expect it; held data is never fetched twice.
    long long start = prepareWriteHead(from);
    if (count != 0) count = from + count > start ? from + count - start : 0;
    rangeCount_ = 0;
    feedRequested_ = false;
    connectionBegin_ = start;
    if (size != 0 && start >= size) {
      CV_LOG(1, "all data from %lld is held, no connection", from);
      streamLive_ = false;
      streamLock_.notifyAll();
      return;
    }
    if (streamStatus_ == STREAM_RESETTING) setStatus(STREAM_IDLE);
    from = start;
    version = version_;
    producerPos_ = start;
    connectionCount_ = count;
    streamLive_ = true;
    workerBusy_ = true;
    if ((*wtHead_)->getBeginningSeqNum() != from) CV_LOG(1, "errorRRRRRRRRRRRRRRRRRRRRRRRRRRR");
    CV_LOG(1, "%lld ~ %lld", from, from + count);
    dumpBuffer(false);
    if (needExit()) {
      CV_LOG(1, "break from workBegin because of exit request");
      workerBusy_ = false;
      streamLive_ = false;
      return;
    }
  }
  int result = producer_ != nullptr ? producer_->startStreaming(version, from, count) : -1;
  SyncGuard guard(streamLock_);
  workerBusy_ = false;
  if (result != 0 && version == version_) {
    CV_LOG(0, "start streaming refused at %lld", from);
    streamLive_ = false;
  }
  if (readerWaiting_) streamLock_.notifyAll();
}

void BufferQueue::startWorker() {
  if (!worker_.start(this)) std::fprintf(stderr, "%s\n", kStartWorkerFailed);
}

void BufferQueue::stopProducerRun() {
  if (producer_ == nullptr) return;
  producer_->stopStreaming();
  // A stop that lands while the worker is between its decision and the
  // producer's start finds nothing to stop, and the run would then carry a
  // superseded connection until its first chunk is refused, or a silent
  // server's first-byte limit. Stopping again until the run is over closes
  // that gap; a run that is really stopped ends within one turn.
  // Mostly the run is already leaving: the stop above returned when the
  // transfer ended, and the worker only has to take the lock once more. So
  // the first looks come after microseconds (a far seek waits here), and
  // the pause grows to kStopRetryMs for a run that really missed the stop.
  // The first looks only yield: a sleep of microseconds lasts the timer
  // slack (50 us by default), longer than the worker needs to leave.
  SyncGuard guard(streamLock_);
  auto spinUntil = std::chrono::steady_clock::now() + std::chrono::microseconds(kStopSpinUs);
  long long pauseUs = 20;
  while (workerBusy_) {
    SyncUnguard unguard(streamLock_);
    if (std::chrono::steady_clock::now() < spinUntil) {
      std::this_thread::yield();
      continue;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(pauseUs));
    pauseUs = std::min<long long>(pauseUs * 2, kStopRetryMs * 1000LL);
    producer_->stopStreaming();
  }
}

void BufferQueue::stopWorker() {
  CV_LOG(0, "stopWorker in ");
  stopProducerRun();
  CV_LOG(0, "stop worker begin");
  worker_.stop(false);
  CV_LOG(0, "stop worker end");
  SyncGuard guard(streamLock_);
  activeWorkNum_ = activeWorkNum_ - 1;
}

void BufferQueue::reconnectTask(void* queue, TEngineEvent_E event) {
  BufferQueue* self = static_cast<BufferQueue*>(queue);
  if (event == TENGINE_EVENT_EXECUTE) {
    CV_LOG(0, "restart worker");
    SyncGuard reconnectGuard(self->reconnectLock_);  // released before the count below
    bool exit;
    {
      SyncGuard guard(self->streamLock_);
      exit = self->needExit();
    }
    if (exit) {
      CV_LOG(0, "need exit");
    } else {
      self->stopWorker();
      CV_LOG(0, "begin to start worker");
      if (!self->worker_.start(self)) std::fprintf(stderr, "%s\n", kStartWorkerFailed);
      CV_LOG(0, "end to start worker");
    }
  }
  // Last touch of the queue: its release may be waiting for this count.
  SyncGuard taskGuard(self->taskLock_);
  --self->pendingTasks_;
  self->taskLock_.notifyAll();
}

}  // namespace util
