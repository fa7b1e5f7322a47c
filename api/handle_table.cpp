#include "api/handle_table.h"

#include <algorithm>

#include "diag/log.h"
#include "thread/init_order.h"
#include "thread/sync_guard.h"

namespace api {

namespace {
HandleTable gTable CV_INIT_ORDER(CV_INIT_API_TABLE);
OpenList gOpenList CV_INIT_ORDER(CV_INIT_OPEN_LIST);
}  // namespace

HandleTable& handleTable() { return gTable; }
OpenList& openList() { return gOpenList; }

int HandleTable::insert(webs::SmartFile* file) {
  for (int handle = 1; handle < kMaxHandles; ++handle) {
    if (slots_[handle] != nullptr) continue;
    slots_[handle] = file;
    gOpenList.files.push_back(file);
    return handle;
  }
  return -1;
}

webs::SmartFile* HandleTable::find(int handle) {
  webs::SmartFile* file = slots_[handle];
  std::list<webs::SmartFile*>& files = gOpenList.files;
  if (files.empty() || std::find(files.begin(), files.end(), file) == files.end()) {
    return nullptr;
  }
  return file;
}

webs::SmartFile* HandleTable::remove(int handle) {
  webs::SmartFile* file = find(handle);
  if (file == nullptr) return nullptr;
  slots_[handle] = nullptr;
  gOpenList.files.remove(file);
  return file;
}

bool handleInRange(int handle) {
  if (handle > 0 && handle < kMaxHandles) return true;
  CV_LOG(0, "INVALID_HANDLE\n");
  return false;
}

webs::SmartFile* lookup(int handle) {
  if (!handleInRange(handle)) return nullptr;
  util::SyncGuard guard(gTable.lock());
  return gTable.find(handle);
}

}  // namespace api
