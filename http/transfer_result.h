// The results of MethodRequest::executeGet that callers act on, named so
// that code outside http/ never needs libcurl's headers. Besides these, a
// result of 400 or more is the HTTP status of the answer.
#ifndef CORVANE_HTTP_TRANSFER_RESULT_H_
#define CORVANE_HTTP_TRANSFER_RESULT_H_

namespace webs {

constexpr int kTransferOk = 0;
constexpr int kTransferHostUnresolved = 6;    // CURLE_COULDNT_RESOLVE_HOST
constexpr int kTransferConnectFailed = 7;     // CURLE_COULDNT_CONNECT
constexpr int kTransferPartialFile = 18;      // CURLE_PARTIAL_FILE
constexpr int kTransferBodyRefused = 23;      // CURLE_WRITE_ERROR
constexpr int kTransferTimedOut = 28;         // CURLE_OPERATION_TIMEDOUT
constexpr int kTransferStopped = 42;          // CURLE_ABORTED_BY_CALLBACK after stop()
constexpr int kTransferBroken = -1;           // a break request met 2 s of silence
constexpr int kTransferStalled = -2;          // first-byte or stall limit reached

// Socket errors MethodRequest::getErrno() reports for kTransferConnectFailed.
constexpr long kSocketHostUnreachable = 113;  // EHOSTUNREACH
constexpr long kSocketConnectRefused = 111;   // ECONNREFUSED

}  // namespace webs

#endif  // CORVANE_HTTP_TRANSFER_RESULT_H_
