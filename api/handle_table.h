// The C interface's handle table: slot N holds the SmartFile of handle N
// (1..255), the open list holds every SmartFile handed out and not closed,
// in order of opening, and the API lock guards both.
//
// Process-wide, built at load, never destroyed before exit. The API lock is
// always taken alone and never held while calling into a SmartFile.
#ifndef CORVANE_API_HANDLE_TABLE_H_
#define CORVANE_API_HANDLE_TABLE_H_

#include <list>

#include "file/smart_file.h"
#include "thread/semaphore.h"

namespace api {

constexpr int kMaxHandles = 256;  // slot 0 unused: handles 1..255

class HandleTable {
 public:
  // Stores `file` in the lowest free slot; its handle, or -1 when none is
  // free. REQUIRES: lock held.
  int insert(webs::SmartFile* file);
  // The live SmartFile of `handle` (in its slot and in the open list), or
  // null. REQUIRES: lock held, handle in 1..255.
  webs::SmartFile* find(int handle);
  // Clears the slot and removes its SmartFile from the open list; the
  // SmartFile, or null when the handle was not live. REQUIRES: lock held.
  webs::SmartFile* remove(int handle);

  util::Semaphore& lock() { return apiLock_; }

 private:
  webs::SmartFile* slots_[kMaxHandles] = {};
  util::Semaphore apiLock_;
};

// The open list lives apart from the table, as its own process-wide object
// with its own rank in the load order.
struct OpenList {
  std::list<webs::SmartFile*> files;
};

HandleTable& handleTable();
OpenList& openList();

// True for 1..255; logs "INVALID_HANDLE\n" otherwise.
bool handleInRange(int handle);
// The range check, then the lookup under the API lock: the live SmartFile
// or null. The lock is released before returning.
webs::SmartFile* lookup(int handle);

}  // namespace api

#endif  // CORVANE_API_HANDLE_TABLE_H_
