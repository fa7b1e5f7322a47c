#include "source/local_file_request.h"

#include <cstring>

#include "diag/log.h"
#include "thread/sync_guard.h"

LocalFileRequest::LocalFileRequest(std::string const& path)
    : FileRequest(path), thread(&LocalFileRequest::perform), count(0), fileSize(0), version(0),
      stopped(false) {}

LocalFileRequest::~LocalFileRequest() {
  CV_LOG(1, "1");
  {
    // A run still going must see the exit at its next chunk; the thread
    // object's destructor then waits for the thread to leave.
    util::SyncGuard guard(*this);
    stopped = true;
    notifyAll();
  }
}

bool LocalFileRequest::openStream() {
  stream.clear();
  stream.open(location, std::ios::in);
  return !(stream.fail() || stream.bad());
}

bool LocalFileRequest::initialize() {
  util::SyncGuard guard(*this);
  if (!stream.is_open() && !openStream()) return false;
  stream.seekg(0, std::ios::end);
  long long size = static_cast<long long>(stream.tellg());
  if (size < 0) size = 0;
  fileSize = size;
  stream.seekg(0, std::ios::beg);
  CV_LOG(1, "xxxxx file size:%d", static_cast<int>(size));
  return true;
}

int LocalFileRequest::startStreaming(int ver, long long from, long long cnt) {
  util::SyncGuard guard(*this);
  CV_LOG(1, "%lld ~ %lld", from, cnt);
  count = cnt;
  if (out == nullptr) {
    util::SyncUnguard unguard(*this);
    CV_LOG(1, "start streaming at local cause of out is null");
    return -1;
  }
  // A run that was told to stop is only finishing its current chunk (this
  // lock is free, so it is not inside the sink): let it end instead of
  // refusing the restart that usually follows a stop at once. From the
  // reader thread itself that wait could never end, so it is refused.
  while (reading && stopped && !pthread_equal(readerThread, pthread_self())) wait();
  if (reading) {
    util::SyncUnguard unguard(*this);
    CV_LOG(1, "1");
    return -1;
  }
  if (stopped) {
    if (stream.is_open()) {
      stream.clear();
    } else if (!openStream()) {
      util::SyncUnguard unguard(*this);
      CV_LOG(0, "Open file fail");
      // Reported as started on purpose: the queue's monitor notices that
      // nothing arrives and reconnects.
      return 0;
    }
  }
  out->notifyStreamException(util::EVENT_STREAM_NORMAL);
  stream.clear();
  stream.seekg(from, std::ios::beg);
  version = ver;
  CV_LOG(0, "file offset:%d", static_cast<int>(static_cast<long long>(stream.tellg())));
  stopped = false;
  reading = true;
  ++startsRequested;
  thread.start(this);
  CV_LOG(1, "local start streaming end");
  return 0;
}

int LocalFileRequest::stopStreaming() {
  util::SyncGuard guard(*this);
  CV_LOG(1, "begin to stop LocalFile streaming");
  thread.stop(false);
  stopped = true;
  if (startsTaken != startsRequested) {
    startsTaken = startsRequested;
    reading = false;
  }
  CV_LOG(1, " stop LocalFile streaming OK");
  closeStream();
  notifyAll();
  return 0;
}

void LocalFileRequest::release() {
  util::SyncGuard guard(*this);
  closeStream();
}

void LocalFileRequest::closeStream() {
  CV_LOG(1, "file relsease begin");
  if (stream.is_open()) stream.close();
  CV_LOG(1, "file relsease end");
}

int LocalFileRequest::read(char* buffer, unsigned long size, int ver) {
  util::SyncGuard guard(*this);
  if (stopped || !stream.is_open() || stream.eof()) return -1;
  // Straight into the queue's write block when it offers room, sparing one
  // copy of every chunk; else through the thread's own chunk buffer.
  char* place = buffer;
  if (out != nullptr) {
    if (void* room = out->directRoom(size, ver)) place = static_cast<char*>(room);
  }
  stream.read(place, static_cast<std::streamsize>(size));
  unsigned long got = static_cast<unsigned long>(stream.gcount());
  if (out != nullptr && out->streamIn(place, got, ver)) {
    if (got == 0 && stream.eof()) {
      CV_LOG(0, "xxxxxx eof");
      return -1;
    }
    return static_cast<int>(got);
  }
  CV_LOG(0, "write to buffer failed");
  stopped = true;
  return -1;
}

void LocalFileRequest::notifyPerformEnd() {
  util::StreamSink* sink = nullptr;
  {
    util::SyncGuard guard(*this);
    if (!stopped) sink = out;
  }
  // Outside the lock: the queue may start or stop this source from its
  // event handling.
  if (sink != nullptr) sink->notifyStreamException(util::EVENT_STREAM_PARTIAL_END);
}

void* LocalFileRequest::perform(void* arg) {
  LocalFileRequest* self = static_cast<LocalFileRequest*>(arg);
  char buffer[kChunkSize];
  std::memset(buffer, 0, sizeof(buffer));
  long long wanted;
  int ver;
  {
    util::SyncGuard guard(*self);
    if (!self->reading || self->startsTaken == self->startsRequested) return nullptr;
    self->startsTaken = self->startsRequested;
    self->readerThread = pthread_self();
    wanted = self->count;
    ver = self->version;
  }
  CV_LOG(1, "local read begin version: %d, count:%d, ", ver, static_cast<int>(wanted));
  long long total = 0;
  for (;;) {
    int got = self->read(buffer, kChunkSize, ver);
    if (got == -1) {
      CV_LOG(1, "LocalFileRequest break from streaming");
      break;
    }
    total += got;
    // Equality only: with a count that is not a multiple of the chunk size
    // the reader goes on to the end of the file and the queue drops the
    // surplus. Kept as the queue expects it.
    if (wanted != 0 && total == wanted) break;
  }
  self->notifyPerformEnd();
  CV_LOG(1, "LocalFileRequest::perform finished, count:%d", static_cast<int>(total));
  util::SyncGuard guard(*self);
  self->reading = false;
  self->notifyAll();
  return nullptr;
}
