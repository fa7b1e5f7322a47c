// The frame every exported x_smart_file_* function runs its work in.
//
// Nothing thrown inside (an allocation failure, a broken invariant) may
// cross the C interface: noThrow turns it into the call's failure value.
// Most calls act on the live SmartFile of their handle: withFile does the
// range check and the lookup under the API lock (releasing the lock before
// the body runs) and answers the failure value for a handle that is not
// open. Both run on the caller's thread; the API lock is the only lock they
// take, and never while the body runs.
//
// A range check or a log line a function runs before its lookup may stand
// outside these frames: a compare and a plain C call cannot throw.
#ifndef CORVANE_API_API_CALL_H_
#define CORVANE_API_API_CALL_H_

#include <type_traits>

#include "api/handle_table.h"

namespace api {

// `call()`, or `failure` when it throws. The failure value takes the type
// of the call's result, so an SMFR_* code may stand for an int or a
// long long result.
template <typename Call>
std::invoke_result_t<Call&> noThrow(std::invoke_result_t<Call&> failure, Call&& call) noexcept {
  try {
    return call();
  } catch (...) {
    return failure;
  }
}

// `body(file)` with the live SmartFile of `handle`; `noFile` when the
// handle is out of range (lookup logs it) or not open, and when anything
// is thrown.
template <typename Body>
std::invoke_result_t<Body&, webs::SmartFile*> withFile(
    int handle, std::invoke_result_t<Body&, webs::SmartFile*> noFile, Body&& body) noexcept {
  return noThrow(noFile, [&]() -> std::invoke_result_t<Body&, webs::SmartFile*> {
    webs::SmartFile* file = lookup(handle);
    if (file == nullptr) return noFile;
    return body(file);
  });
}

}  // namespace api

#endif  // CORVANE_API_API_CALL_H_
