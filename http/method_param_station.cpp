#include "http/method_param_station.h"

#include "thread/init_order.h"
#include "thread/sync_guard.h"

namespace webs {

MethodParamStation MethodParamStation::_INS_ CV_INIT_ORDER(CV_INIT_METHOD_PARAM_STATION);

MethodParamStation::~MethodParamStation() {
  while (freeList_ != nullptr) {
    MethodParam* next = freeList_->next;
    delete freeList_;
    freeList_ = next;
  }
}

MethodParam* MethodParamStation::claim() {
  {
    util::SyncGuard guard(*this);
    if (freeList_ != nullptr) {
      MethodParam* record = freeList_;
      freeList_ = record->next;
      --freeCount_;
      record->next = nullptr;
      return record;
    }
  }
  return new MethodParam();
}

void MethodParamStation::recycle(MethodParam* chain) {
  while (chain != nullptr) {
    MethodParam* next = chain->next;
    chain->name.clear();
    chain->value.clear();
    util::SyncGuard guard(*this);
    chain->next = freeList_;
    freeList_ = chain;
    ++freeCount_;
    chain = next;
  }
}

int MethodParamStation::freeCount() {
  util::SyncGuard guard(*this);
  return freeCount_;
}

}  // namespace webs
