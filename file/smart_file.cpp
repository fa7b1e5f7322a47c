#include "file/smart_file.h"

#include "diag/log.h"
#include "file/dull_file_manager.h"
#include "thread/sync_guard.h"

namespace webs {

namespace {
constexpr int kFailed = -4;
constexpr int kBusy = -12;
constexpr int kEof = -13;
}  // namespace

SmartFile::SmartFile(int size)
    : dullFile(nullptr), bufferSize(size), position(0), liveBase(0), liveflag(false) {}

SmartFile::~SmartFile() = default;

bool SmartFile::open(const std::string& location) {
  dullFile = DullFileManager::openDullFile(this, location, bufferSize);
  return dullFile != nullptr;
}

int SmartFile::close() {
  int r = DullFileManager::closeDullFile(this, dullFile);
  dullFile = nullptr;
  return r;
}

int SmartFile::read(char* buf, unsigned long size, unsigned long* readSize) {
  if (dullFile == nullptr) return kFailed;
  if (CV_LOG_ON(2)) {
    CV_LOG(2, "SmartFile read: size=%d, position=%lld, seekable=%d, miniSeq=%lld",
           static_cast<int>(size), position.load(), dullFile->randomAccessable() ? 1 : 0,
           dullFile->getMiniBufferSeq());
  }
  int r;
  {
    util::SyncGuard guard(*dullFile);
    long long miniSeq = dullFile->getMiniBufferSeq();
    if (position < miniSeq && liveflag) {
      CV_LOG(0, "smartFile : read: liveflag = true");
      liveBase = miniSeq;
      // Added, not assigned: players of live streams rely on this jump.
      position += miniSeq;
    }
    r = dullFile->read(buf, size, position, readSize, this);
    if (r == 0 || r == kEof) position += static_cast<long long>(*readSize);
  }
  CV_LOG(2, "SmartFile readed=%d", static_cast<int>(*readSize));
  return r;
}

int SmartFile::readAsync(char* buf, unsigned long size, SmartFileCallback callback,
                         void* userdata, int* reqID) {
  if (dullFile == nullptr) return kFailed;
  return dullFile->readAsync(buf, size, position, callback, userdata, reqID, this);
}

void SmartFile::newPosMovedByDullFile(long long oldPos, long long newPos) {
  // A compare-and-set rather than the own lock: the caller holds the
  // DullFile's referenceLock, and seek holds the own lock while it waits for
  // the DullFile's read lock, whose holder may wait for referenceLock.
  position.compare_exchange_strong(oldPos, newPos, std::memory_order_relaxed);
}

int SmartFile::cancelRead(int reqID) {
  CV_LOG(1, "cancelRead");
  if (dullFile == nullptr) return kFailed;
  return dullFile->cancelRead(reqID, this);
}

int SmartFile::seek(long long offset, long long* curOffset) {
  CV_LOG(1, "seek begin");
  if (dullFile == nullptr) {
    CV_LOG(1, "seek fail");
    return kFailed;
  }
  if (offset < 0) {
    // No content lies before 0; the position stays where it is.
    CV_LOG(1, "seek fail");
    return kFailed;
  }
  util::SyncGuard guard(*this);
  long long range = offset - position;
  CV_LOG(1, "SmartFile-Seek : range:=%lld, offset=%lld, position=%lld", range, offset,
         position.load());
  long long size = getSize();
  CV_LOG(1, "SmartFile-getSize : %lld", size);
  if (size == 0) {
    CV_LOG(0, "lseek in a 0 size of file");
    return kFailed;
  }
  long long target = size < offset ? size : offset;
  *curOffset = target;
  CV_LOG(1, "current Offset:=%lld, getsize=%lld", target, size);
  if (!dullFile->randomAccessable()) {
    long long miniSeq = dullFile->getMiniBufferSeq();
    CV_LOG(1, "randomAccessable false and offset=%lld, miniSeq=%lld", offset, miniSeq);
    if (miniSeq > offset) liveflag = true;
    bool allowed = (range >= 0 && range <= kNonSeekableRange) ||
                   (range < 0 && target <= kNonSeekableRange);
    if (!allowed) {
      CV_LOG(0, "lumora seek busy: range:%lld, new position:%lld", range, target);
      return kBusy;
    }
  }
  position = target;
  CV_LOG(1, "current position: %lld\n", target);
  {
    util::SyncUnguard unguard(*this);
    CV_LOG(1, "seek End");
  }
  return 0;
}

long long SmartFile::getSize() {
  CV_LOG(0, "smartfile getSize");
  if (dullFile == nullptr) return kFailed;
  return dullFile->getSize();
}

// Without a DullFile (the open failed, or after close) both report failure.
int SmartFile::getBufferSize() { return dullFile ? dullFile->getBufferSize() : kFailed; }

int SmartFile::getBufferedSize() {
  return dullFile ? dullFile->getBufferedSize(position) : kFailed;
}

void SmartFile::volatileContent() {
  if (dullFile == nullptr) return;
  util::SyncGuard guard(*dullFile);
  dullFile->volatileContent();
}

FileRequest* SmartFile::getRequest() { return dullFile ? dullFile->getRequest() : nullptr; }

void SmartFile::cleanupCache() { DullFileManager::cleanup(); }

}  // namespace webs
