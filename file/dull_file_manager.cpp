#include "file/dull_file_manager.h"

#include "diag/log.h"
#include "file/smart_file.h"
#include "thread/init_order.h"
#include "thread/sync_guard.h"

namespace webs {

std::list<DullFile*> DullFileManager::openfs CV_INIT_ORDER(CV_INIT_API_TABLE);
util::Semaphore DullFileManager::openfsLock CV_INIT_ORDER(CV_INIT_API_TABLE);

void DullFileManager::destroy(DullFile* dull) {
  dull->drainRequests();
  {
    util::SyncGuard guard(*dull);
    dull->close();
  }
  delete dull;
}

DullFile* DullFileManager::openDullFile(SmartFile* file, const std::string& url,
                                        int bufferSize) {
  if (file == nullptr) return nullptr;
  util::SyncGuard guard(openfsLock);
  for (DullFile* dull : openfs) {
    if (!dull->equalTo(url)) continue;
    // Both answers are asked for and neither changes the outcome: every
    // open of the same text shares the file, as clients have always seen.
    if (dull->randomAccessable()) dull->isVolatile();
    dull->reference(file);
    CV_LOG(1, "have got a existing dull file because this file is seekable and non-volatile");
    return dull;
  }
  CV_LOG(1, "begin to open Dull File with buffer:%d", bufferSize);
  DullFile* created = new DullFile(bufferSize);
  for (auto it = openfs.begin(); it != openfs.end();) {
    DullFile* dull = *it;
    if (dull->referenceNumber() != 0) {
      ++it;
      continue;
    }
    CV_LOG(1, "begin to delete file");
    // Without the file's lock here, unlike closeDullFile: nobody can read an
    // unreferenced file.
    dull->drainRequests();
    dull->close();
    delete dull;
    it = openfs.erase(it);
  }
  CV_LOG(1, "open new file for:%s", url.c_str());
  if (!created->open(url)) {
    delete created;  // releases the producer a failed open may have made
    CV_LOG(1, "open file failed");
    return nullptr;
  }
  openfs.push_back(created);
  created->reference(file);
  return created;
}

int DullFileManager::closeDullFile(SmartFile* file, DullFile* dull) {
  CV_LOG(1, "begin closeDullFile");
  bool found = false;
  {
    util::SyncGuard guard(openfsLock);
    for (auto it = openfs.begin(); it != openfs.end(); ++it) {
      if (*it != dull) continue;
      found = true;
      dull->dereference(file);
      if (dull->referenceNumber() > 0) break;
      CV_LOG(1, "begin to delete file");
      destroy(dull);
      openfs.erase(it);
      break;
    }
    if (!found) CV_LOG(1, "error, the file hasn't been opened or it has been closed");
  }
  CV_LOG(1, "End closeDullFile");
  return 0;
}

void DullFileManager::cleanup() {
  util::SyncGuard guard(openfsLock);
  for (auto it = openfs.begin(); it != openfs.end();) {
    DullFile* dull = *it;
    if (dull->referenceNumber() != 0) {
      CV_LOG(1, "Error there's the file:%s hasn't been closed before cleanup",
             dull->location().c_str());
      ++it;
      continue;
    }
    destroy(dull);
    it = openfs.erase(it);
  }
}

void DullFileManager::dumpDebugInfo() {
  // Under the lock, unlike the devices' original, so that a dump cannot meet
  // the close of the file it dumps.
  util::SyncGuard guard(openfsLock);
  if (!openfs.empty()) openfs.front()->dumpDebugInfo();
}

int DullFileManager::openCount() {
  util::SyncGuard guard(openfsLock);
  return static_cast<int>(openfs.size());
}

}  // namespace webs
