// Faulty servers for source tests: a location whose transfer fails (a
// scripted error status, a host name that never resolves, a loopback port
// that refuses) and a server that stalls part-way.
#ifndef CORVANE_TESTS_SOURCE_FAILING_ENDPOINT_H_
#define CORVANE_TESTS_SOURCE_FAILING_ENDPOINT_H_

#include <string>

#include "support/refusing_port.h"
#include "support/scripted_http_server.h"

namespace testsupport {

enum class Place { Server, UnresolvableHost, ClosedPort };

inline Script failingWith(int status) {
  Script s;
  s.status = status;
  s.body = "no such thing";
  return s;
}

// `size` pattern bytes, with `stallMs` of silence after the first `bytes`.
inline Script stallingAfter(long long bytes, int stallMs, long long size) {
  Script s;
  s.size = size;
  s.stallAfter = bytes;
  s.stallMs = stallMs;
  return s;
}

struct FailingEndpoint {
  FailingEndpoint(Place where, int status) : place(where), server(failingWith(status)) {}
  std::string url() const {
    if (place == Place::Server) return server.url();
    return place == Place::ClosedPort ? refusing.url() : "http://no-such-host.invalid/file";
  }
  Place place;
  ScriptedHttpServer server;
  RefusingPort refusing;
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_SOURCE_FAILING_ENDPOINT_H_
