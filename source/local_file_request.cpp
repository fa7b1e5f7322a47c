#include "source/local_file_request.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

LocalFileRequest::File::~File() {
  if (fd >= 0) ::close(fd);
}

bool LocalFileRequest::openStream() {
  file.fd = ::open(location.c_str(), O_RDONLY | O_CLOEXEC);
  return file.fd >= 0;
}

bool LocalFileRequest::initialize() {
  util::SyncGuard guard(*this);
  if (file.fd < 0 && !openStream()) return false;
  struct stat st;
  long long size = ::fstat(file.fd, &st) == 0 ? static_cast<long long>(st.st_size) : 0;
  if (size < 0) size = 0;
  fileSize = size;
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
  if (stopped && file.fd < 0) {
    if (!openStream()) {
      util::SyncUnguard unguard(*this);
      CV_LOG(0, "Open file fail");
      // Reported as started on purpose: the queue's monitor notices that
      // nothing arrives and reconnects.
      return 0;
    }
  }
  out->notifyStreamException(util::EVENT_STREAM_NORMAL);
  // A new run reads from `from` afresh: bytes read ahead by an earlier run
  // are dropped.
  filePos = from;
  ahead = nullptr;
  aheadLen = 0;
  aheadInRoom = false;
  fileEnd = false;
  atEof = false;
  version = ver;
  CV_LOG(0, "file offset:%d", static_cast<int>(file.fd >= 0 ? from : -1));
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
  if (file.fd >= 0) {
    ::close(file.fd);
    file.fd = -1;
  }
  CV_LOG(1, "file relsease end");
}

unsigned long LocalFileRequest::readFile(char* place, unsigned long size, long long at) {
  unsigned long got = 0;
  while (got < size) {
    ssize_t n = ::pread(file.fd, place + got, size - got, static_cast<off_t>(at) + got);
    if (n < 0 && errno == EINTR) continue;
    // An error (a directory, a negative start, an I/O error) ends the
    // file here rather than delivering empty chunks forever.
    if (n <= 0) break;
    got += static_cast<unsigned long>(n);
  }
  return got;
}

int LocalFileRequest::read(char* buffer, unsigned long size, int ver) {
  util::SyncGuard guard(*this);
  if (stopped || file.fd < 0 || atEof) return -1;
  if (aheadLen == 0 && !fileEnd) {
    // Straight into the queue's write block when it offers room, sparing one
    // copy of every chunk: two chunks when it has room for both, else one;
    // else two into the thread's own buffer.
    void* room = nullptr;
    unsigned long want = 2 * size;
    if (out != nullptr) {
      room = out->directRoom(want, ver);
      if (room == nullptr) {
        want = size;
        room = out->directRoom(want, ver);
        if (room == nullptr) want = 2 * size;
      }
    }
    ahead = room != nullptr ? static_cast<char*>(room) : buffer;
    aheadInRoom = room != nullptr;
    aheadLen = readFile(ahead, want, filePos);
    filePos += static_cast<long long>(aheadLen);
    fileEnd = aheadLen < want;
  } else if (aheadLen > 0 && aheadInRoom) {
    // The second chunk of a double read lies right after the first in the
    // write block: handed over in place when the queue offers that very
    // room. Otherwise its write point moved (a restart or refusal came in
    // between) and may have been written over: read again from the file.
    unsigned long next = aheadLen < size ? aheadLen : size;
    void* room = out != nullptr ? out->directRoom(next, ver) : nullptr;
    if (room != ahead) {
      aheadLen = readFile(buffer, aheadLen, filePos - static_cast<long long>(aheadLen));
      ahead = buffer;
      aheadInRoom = false;
    }
  }
  unsigned long got = aheadLen < size ? aheadLen : size;
  // Short only at the end of the file, which the next call then reports.
  if (got < size) atEof = true;
  char* place = got > 0 ? ahead : buffer;
  ahead += got;
  aheadLen -= got;
  if (out != nullptr && out->streamIn(place, got, ver)) {
    if (got == 0 && atEof) {
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
  char buffer[2 * kChunkSize];
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
