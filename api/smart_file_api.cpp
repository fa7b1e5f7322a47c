// The exported x_smart_file_* functions for opening, reading, seeking and
// closing. Each checks its handle under the API lock, releases it and calls
// the SmartFile, inside the frames of api_call.h: nothing thrown inside
// crosses this boundary.
#include <strings.h>

#include <string>

#include "api/api_call.h"
#include "api/handle_table.h"
#include "corvane/smart_file.h"
#include "diag/log.h"
#include "file/dull_file_manager.h"
#include "thread/sync_guard.h"

namespace {

constexpr int kDefaultBufferSize = 0x200000;

bool validUrl(const char* url) {
  return strncasecmp(url, "http://", 7) == 0 || strncasecmp(url, "https://", 8) == 0 ||
         url[0] == '/';
}

// Steps after the argument checks end with the "End" line `endFormat`.
int openWith(const char* url, int* handle, int bufferSize, const char* endFormat) {
  if (url == nullptr || handle == nullptr) {
    CV_LOG(0, "NULL POINT\n");
    return SMFR_FAILED;
  }
  if (!validUrl(url)) {
    CV_LOG(-4, "url is invalid");
    return SMFR_FAILED;
  }
  int result = SMFR_OK;
  webs::SmartFile* file = new webs::SmartFile(bufferSize);
  // The result is not examined on purpose: the handle is given anyway and
  // the failure shows on the first read, seek or size. Opened before the API
  // lock is taken, so that an open waiting for a slow location's first data
  // cannot hold up the closes that would end that wait.
  file->open(url);
  {
    api::HandleTable& table = api::handleTable();
    util::SyncGuard guard(table.lock());
    int slot = table.insert(file);
    if (slot < 0) {
      CV_LOG(0, "open too many file, exceed the limitation %d\n", api::kMaxHandles - 1);
      CV_LOG(0, "alloc file handle fail");
      // Destroyed without close: its DullFile keeps the reference until a
      // later cleanup reports it. Clients have always seen it this way.
      delete file;
      *handle = -1;
      result = SMFR_FAILED;
    } else {
      *handle = slot;
    }
  }
  CV_LOG(0, endFormat, *handle);
  return result;
}

}  // namespace

extern "C" {

int x_smart_file_open(const char* url, int* handle) {
  CV_LOG(0, "Begin x_smart_file_open(url: %s)", url ? url : "(null)");
  return api::noThrow(SMFR_FAILED, [&]() -> int {
    return openWith(url, handle, kDefaultBufferSize, "End x_smart_file_open(handle: %d)");
  });
}

int x_smart_file_open_x(const char* url, int* handle, int buffersize) {
  CV_LOG(0, "Begin x_smart_file_open_x(url: %s, buffersize: %d)", url ? url : "(null)",
         buffersize);
  return api::noThrow(SMFR_FAILED, [&]() -> int {
    return openWith(url, handle, buffersize, "End x_smart_file_open_x(handle: %d)");
  });
}

int x_smart_file_close(int handle) {
  CV_LOG(0, "Begin x_smart_file_close (handle: %d)", handle);
  if (!api::handleInRange(handle)) return SMFR_FAILED;
  return api::noThrow(SMFR_FAILED, [&]() -> int {
    webs::SmartFile* file;
    {
      api::HandleTable& table = api::handleTable();
      util::SyncGuard guard(table.lock());
      file = table.remove(handle);
      if (file == nullptr) {
        CV_LOG(0, "x_smart_file_close exit");
        return SMFR_FAILED;
      }
    }
    // Breaks a read of this handle blocked in the queue, so the close
    // below does not wait for data that may never come.
    file->cancelRead(0);
    file->close();
    delete file;
    CV_LOG(0, "End x_smart_file_close");
    return SMFR_OK;
  });
}

int x_smart_file_read(int handle, char* buf, int size, unsigned long* readSize) {
  CV_LOG(1, "befor x_smart_file_read(handle: %d, size: %d)", handle, size);
  return api::withFile(handle, SMFR_FAILED, [&](webs::SmartFile* file) -> int {
    if (buf == nullptr || readSize == nullptr) {
      CV_LOG(0, "NULL POINT\n");
      return SMFR_FAILED;
    }
    // Widened with its sign the size would ask for nearly 2^64 bytes.
    if (size < 0) return SMFR_FAILED;
    int r = file->read(buf, static_cast<unsigned long>(static_cast<long>(size)), readSize);
    CV_LOG(1, "end x_smart_file_read : %d", r);
    return r;
  });
}

int x_smart_file_read_async(int handle, char* buf, int size, x_smart_file_callback callback,
                            void* userdata, int* reqID) {
  CV_LOG(1, "before x_smart_file_read_async(handle: %d, size: %d)", handle, size);
  return api::withFile(handle, SMFR_FAILED, [&](webs::SmartFile* file) -> int {
    if (buf == nullptr || reqID == nullptr) {
      CV_LOG(0, "NULL POINT\n");
      return SMFR_FAILED;
    }
    if (size < 0) return SMFR_FAILED;
    int r = file->readAsync(buf, static_cast<unsigned long>(static_cast<long>(size)), callback,
                            userdata, reqID);
    CV_LOG(1, "end x_smart_file_read_async(reqID: %d)", r == SMFR_OK ? *reqID : -1);
    return r;
  });
}

int x_smart_file_read_abort(int handle, int reqID) {
  if (!api::handleInRange(handle)) return SMFR_FAILED;
  CV_LOG(1, "before x_smart_file_read_abort(handle: %d, reqID: %d)", handle, reqID);
  return api::withFile(handle, SMFR_FAILED, [&](webs::SmartFile* file) -> int {
    int r = file->cancelRead(reqID);
    CV_LOG(1, "end x_smart_file_read_abort");
    return r;
  });
}

int x_smart_file_seek(int handle, long long offset, long long* curOffset) {
  CV_LOG(0, "x_smart_file_seek begin(handle: %d, offset: %lld)", handle, offset);
  return api::noThrow(SMFR_FAILED, [&]() -> int {
    // Not withFile: a handle that is not open logs the failed end as well.
    webs::SmartFile* file = api::lookup(handle);
    if (file == nullptr || curOffset == nullptr) {
      CV_LOG(0, "x_smart_file_seek end(SMFR_FAILED)");
      return SMFR_FAILED;
    }
    int r = file->seek(offset, curOffset);
    CV_LOG(0, "x_smart_file_seek end(curOffset: %lld)", *curOffset);
    return r;
  });
}

long long x_smart_file_offset(int handle) {
  return api::withFile(handle, SMFR_FAILED,
                       [](webs::SmartFile* file) -> long long { return file->getPosition(); });
}

long long x_smart_file_size(int handle) {
  if (!api::handleInRange(handle)) return SMFR_FAILED;
  CV_LOG(0, "x_smart_file_size begin(handle: %d)", handle);
  return api::withFile(handle, SMFR_FAILED, [](webs::SmartFile* file) -> long long {
    long long size = file->getSize();
    CV_LOG(0, "x_smart_file_size end(size: %lld)", size);
    return size;
  });
}

int x_smart_file_volatile(int handle) {
  return api::withFile(handle, SMFR_FAILED, [](webs::SmartFile* file) -> int {
    file->volatileContent();
    return SMFR_OK;
  });
}

int x_smart_file_bufferSize(int handle) {
  return api::withFile(handle, SMFR_FAILED,
                       [](webs::SmartFile* file) -> int { return file->getBufferSize(); });
}

int x_smart_file_bufferedSize(int handle) {
  return api::withFile(handle, SMFR_FAILED,
                       [](webs::SmartFile* file) -> int { return file->getBufferedSize(); });
}

int x_smart_file_dump_buffer(void) {
  return api::noThrow(SMFR_OK, []() -> int {
    webs::DullFileManager::dumpDebugInfo();
    return SMFR_OK;
  });
}

}  // extern "C"
