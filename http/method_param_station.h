// webs::MethodParamStation: the process-wide pool of query-parameter records
// that MethodRequest::pushParam fills and buildParam2URL turns into a query.
//
// Records are recycled rather than freed, like the library's other pooled
// records. Built at load in its rank (thread/init_order.h), never destroyed
// before the requests that use it. Any thread may claim or recycle; the
// station's own lock guards the free list and is always taken alone.
#ifndef CORVANE_HTTP_METHOD_PARAM_STATION_H_
#define CORVANE_HTTP_METHOD_PARAM_STATION_H_

#include <string>

#include "thread/semaphore.h"

namespace webs {

struct MethodParam {
  std::string name;
  std::string value;
  MethodParam* next = nullptr;
};

class MethodParamStation : public util::Semaphore {
 public:
  MethodParamStation() = default;
  ~MethodParamStation() override;

  static MethodParamStation _INS_;

  // A cleared record, from the free list when one is there.
  MethodParam* claim();
  // Returns a chain of records (linked by `next`) to the free list.
  void recycle(MethodParam* chain);
  int freeCount();

 private:
  MethodParam* freeList_ = nullptr;  // guarded by the station's lock
  int freeCount_ = 0;
};

}  // namespace webs

#endif  // CORVANE_HTTP_METHOD_PARAM_STATION_H_
