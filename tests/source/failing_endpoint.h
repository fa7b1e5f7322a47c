// A location whose transfer fails: a scripted error status on the loopback
// server, a host name that never resolves, or a loopback port that refuses.
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
