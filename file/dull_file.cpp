#include "file/dull_file.h"

#include <algorithm>

#include "diag/log.h"
#include "file/smart_file.h"
#include "source/file_request_adaptor.h"
#include "thread/init_order.h"
#include "thread/sync_guard.h"
#include "thread/thread_engine.h"

namespace webs {

ReadRequestRecord* DullFile::requestTable[DullFile::kMaxRequests] = {};
util::Semaphore& DullFile::requestLock() {
  static util::Semaphore* lock = new util::Semaphore();
  return *lock;
}

namespace {
// Result codes of the public interface used here.
constexpr int kFailed = -4;
constexpr int kEof = -13;
}  // namespace

DullFile::DullFile(int bufferSize)
    : referenceCount(0), reader(nullptr), request(nullptr), rbuffer(bufferSize) {}

DullFile::~DullFile() {
  // Only a file whose open failed still holds its producer here; close()
  // has released it otherwise.
  FileRequestAdaptor::releaseFileRequest(request);
}

bool DullFile::open(const std::string& location) {
  url = location;
  request = FileRequestAdaptor::createFileRequest(location);
  if (request == nullptr) {
    CV_LOG(1, "producer is null");
    return false;
  }
  request->setOut(&rbuffer);
  if (!request->initialize()) {
    CV_LOG(1, "producer init failed");
    return false;
  }
  CV_LOG(1, "producer init  ok");
  if (!rbuffer.initialize(request)) {
    CV_LOG(1, "rbuffer.init failed");
    return false;
  }
  CV_LOG(1, "open file ok");
  return true;
}

void DullFile::reference(SmartFile* file) {
  util::SyncGuard guard(referenceLock);
  references.push_back(file);
  ++referenceCount;
}

void DullFile::dereference(SmartFile* file) {
  CV_LOG(1, "begin dereference dullfile");
  {
    util::SyncGuard guard(referenceLock);
    if (reader == file) {
      CV_LOG(1, "breakRead");
      rbuffer.breakRead();
      CV_LOG(1, "breakRead End");
    }
    --referenceCount;
    auto it = std::find(references.begin(), references.end(), file);
    if (it != references.end()) references.erase(it);
    CV_LOG(1, "dereference a file");
    reader = nullptr;
  }
  CV_LOG(1, "End dereference dullfile");
}

int DullFile::referenceNumber() {
  util::SyncGuard guard(referenceLock);
  return referenceCount;
}

int DullFile::read(char* buf, unsigned long size, long long position, unsigned long* readSize,
                   SmartFile* file) {
  // Every break aimed at this read is made under referenceLock after this
  // count is taken, so one that lands before the queue read begins still
  // counts.
  unsigned long breaks = 0;
  {
    util::SyncGuard guard(referenceLock);
    if (std::find(references.begin(), references.end(), file) == references.end()) {
      util::SyncUnguard unguard(referenceLock);
      CV_LOG(1, "read failed in dull file");
      return kFailed;
    }
    reader = file;
    breaks = rbuffer.breakCount();
  }
  long long cur = 0;
  bool moved = rbuffer.seek(position, &cur);
  CV_LOG(1, "seek:  %d , offset =%lld, curOffset = %lld", moved ? 1 : 0, position, cur);
  if (!moved) {
    CV_LOG(1, "move position failed before read");
    // A stream that has finished answers every read alike, whether or not
    // the position could be moved first.
    int r = rbuffer.needExit() ? util::BufferQueue::READ_FINISHED : kFailed;
    CV_LOG(1, "read end, error = %d", r);
    return r;
  }
  int r = rbuffer.read(buf, size, readSize, breaks);
  CV_LOG(1, "read end, error = %d", r);
  return r;
}

int DullFile::readAsync(char* buf, unsigned long size, long long position,
                        SmartFileCallback callback, void* userdata, int* reqID, SmartFile* file) {
  ReadRequestRecord* record = nullptr;
  {
    util::SyncGuard guard(requestLock());
    int id = 1;
    while (id < kMaxRequests && requestTable[id] != nullptr) ++id;
    if (id == kMaxRequests) {
      CV_LOG(0, "send too many read request, exceed the limitation %d\n", kMaxRequests - 1);
      CV_LOG(0, "alloc request id fail\n");
      return kFailed;
    }
    record = new ReadRequestRecord();
    record->buf = buf;
    record->size = size;
    record->position = position;
    record->callback = callback;
    record->userdata = userdata;
    record->file = file;
    record->dull = this;
    record->reqID = id;
    requestTable[id] = record;
    *reqID = id;
  }
  {
    util::SyncGuard guard(taskLock);
    ++outstandingTasks;
  }
  CV_LOG(1, "request thread engine to run read request");
  util::ThreadEngine::_INS_.requestExecuteOrderly(&DullFile::readTask, record, this);
  return 0;
}

void DullFile::freeRecord(ReadRequestRecord* record) {
  if (requestTable[record->reqID] == record) requestTable[record->reqID] = nullptr;
  delete record;
}

void DullFile::readTask(void* arg, util::TEngineEvent_E event) {
  ReadRequestRecord* record = static_cast<ReadRequestRecord*>(arg);
  CV_LOG(1, "(((((((((((( request count :%d: & buffer is: %p))))))))))))",
         static_cast<int>(record->size), static_cast<void*>(record->buf));
  DullFile* dull = record->dull;
  int status = ASYNC_READ_CANCELLED;
  unsigned long n = 0;
  if (event == util::TENGINE_EVENT_CANCEL) {
    CV_LOG(1, "cancel async read %d", record->reqID);
  } else {
    int r;
    {
      util::SyncGuard guard(*dull);
      r = dull->read(record->buf, record->size, record->position, &n, record->file);
    }
    if (r == kEof || r == 0) {
      CV_LOG(1, "async read %d ok in perform ((((((()))))))", static_cast<int>(n));
      // The handle may have been closed while its read ran (only the last
      // close waits for the file's tasks): its SmartFile is then gone. A
      // close dereferences under referenceLock before destroying it.
      util::SyncGuard guard(dull->referenceLock);
      if (std::find(dull->references.begin(), dull->references.end(), record->file) !=
          dull->references.end()) {
        record->file->newPosMovedByDullFile(record->position,
                                            record->position + static_cast<long long>(n));
      }
      status = r == kEof ? ASYNC_READ_EOF : ASYNC_READ_DONE;
    } else {
      CV_LOG(1, "async read fail %d", r);
      status = record->cancelled ? ASYNC_READ_CANCELLED : ASYNC_READ_FAILED;
    }
  }
  // The last touch of the file comes before the callback: the callback may
  // close the file's last handle (whose close waits for this count) or open
  // and close others, so nothing here may wait on it. The record and its id
  // live on, apart from the file, until the callback has returned.
  {
    util::SyncGuard guard(dull->taskLock);
    --dull->outstandingTasks;
    dull->taskLock.notifyAll();
  }
  if (record->callback) {
    record->callback(record->reqID, record->userdata, status, static_cast<int>(n));
  }
  util::SyncGuard guard(requestLock());
  if (record->pins > 0) {
    // A cancelRead still reads this record; it frees it when done.
    record->finished = true;
  } else {
    freeRecord(record);
  }
}

void DullFile::drainRequests() {
  util::ThreadEngine::_INS_.cancelAll(this);
  util::SyncGuard guard(taskLock);
  while (outstandingTasks > 0) taskLock.wait();
}

int DullFile::cancelRead(int reqID, SmartFile* file) {
  CV_LOG(-4, "cancelRead, reqID:%d", reqID);
  if (static_cast<unsigned>(reqID) >= static_cast<unsigned>(kMaxRequests)) {
    CV_LOG(-1, "reqID(%d) is invalid", reqID);
    return -1;
  }
  if (reqID == 0) {
    util::SyncGuard guard(referenceLock);
    if (reader == file || rbuffer.getContentSize() == 0) rbuffer.breakRead();
    return 0;
  }
  ReadRequestRecord* record;
  SmartFileCallback callback;
  void* userdata;
  {
    util::SyncGuard guard(requestLock());
    record = requestTable[reqID];
    if (record == nullptr) return 0;
    // Pinned so that the task's end cannot free it under us: the second
    // report below needs its callback and user data.
    ++record->pins;
    callback = record->callback;
    userdata = record->userdata;
  }
  if (util::ThreadEngine::_INS_.cancel(record)) {
    // Withdrawn while queued: the task already reported status 3 through
    // the cancel event; this second report is what clients of the
    // interface have always received.
    if (callback) callback(reqID, userdata, ASYNC_READ_CANCELLED, 0);
  } else {
    util::SyncGuard guard(referenceLock);
    if (reader == file) {
      record->cancelled = true;
      rbuffer.breakRead();
    }
    reader = nullptr;
  }
  util::SyncGuard guard(requestLock());
  if (--record->pins == 0 && record->finished) freeRecord(record);
  return 0;
}

long long DullFile::waitForContentSize(int logLevel) {
  CV_LOG(1, "DullFile getSize");
  long long size = rbuffer.getContentSize();
  if (size == 0 && !rbuffer.needExit()) {
    // Held under the read lock: the one-byte read moves the queue's read
    // offset, which a read of another SmartFile between its seek and its
    // read must not see.
    util::SyncGuard guard(*this);
    size = rbuffer.getContentSize();
    if (size == 0 && !rbuffer.needExit()) {
      CV_LOG(logLevel, "begin to read");
      char scratch = 0;
      unsigned long got = 0;
      rbuffer.read(&scratch, 1, &got);
      return rbuffer.getContentSize();
    }
  }
  if (size != 0) return size;
  CV_LOG(2, " errorOccured:%d", rbuffer.needExit() ? 1 : 0);
  return size;
}

long long DullFile::getSize() { return waitForContentSize(2); }

bool DullFile::randomAccessable() {
  waitForContentSize(1);
  return rbuffer.isRandomAccess();
}

void DullFile::volatileContent() { rbuffer.setVolContent(); }

bool DullFile::isVolatile() { return rbuffer.isVolatile(); }

void DullFile::resetError() { rbuffer.resetErrorStatus(); }

long long DullFile::getMiniBufferSeq() { return rbuffer.getMiniBlockOffset(); }

int DullFile::getBufferSize() { return static_cast<int>(rbuffer.getTotalCapacity()); }

int DullFile::getBufferedSize(long long position) {
  return static_cast<int>(rbuffer.getBufferedSize(position));
}

void DullFile::close() {
  {
    util::SyncGuard guard(referenceLock);
    CV_LOG(1, "begin to cancelAll");
    util::ThreadEngine::_INS_.cancelAll(this);
    CV_LOG(1, "begin to release rbuffer");
    rbuffer.release();
    CV_LOG(1, "begin to release producer");
    FileRequestAdaptor::releaseFileRequest(request);
    request = nullptr;
  }
  CV_LOG(1, "close End");
}

void DullFile::dumpDebugInfo() { rbuffer.dumpBuffer(true); }

int DullFile::pendingRequestCount() {
  util::SyncGuard guard(requestLock());
  int n = 0;
  for (ReadRequestRecord* record : requestTable) n += record != nullptr ? 1 : 0;
  return n;
}

}  // namespace webs
