// MethodResponse: the per-transfer sequence of calls into its reader and the
// result it keeps, with a recording reader and with the JSON reader.
#include "doc/method_response.h"

#include <gtest/gtest.h>

#include <string>

#include "doc/json_reader.h"
#include "tests/doc/recording_reader.h"

namespace {

using testsupport::RecordingReader;
using webs::JSONReader;
using webs::MethodResponse;

// A result-processing subclass: records the call, and with a JSON reader
// takes "status" and "message" from the tree.
class StatusResponse : public MethodResponse {
 public:
  void processResult() override {
    ++processed;
    if (recorder) recorder->log += "processResult ";
    if (!json) return;
    const std::string* status = json->lookupValue("status");
    const std::string* message = json->lookupValue("message");
    success = !json->hasError() && status && *status == "ok";
    errorCode = status ? *status : "no status";
    errorMsg = message ? *message : json->getError().message;
  }

  int processed = 0;
  RecordingReader* recorder = nullptr;
  JSONReader* json = nullptr;
};

// A reader given by switchReader is used from the next transfer on without
// being initialised; a null reader is allowed until then.
TEST(MethodResponseTest, OneTransferCallsTheReaderInSequenceAndSwitchingDoesNotInitialise) {
  RecordingReader reader;
  RecordingReader second;
  StatusResponse response;
  response.recorder = &reader;
  response.initialize(nullptr);
  response.switchReader(&second);
  EXPECT_EQ(second.log, "");
  response.initialize(&reader);
  EXPECT_EQ(reader.log, "initialize ");
  reader.log.clear();

  response.readyReceive();
  char body[] = "abcdef";
  EXPECT_EQ(response.receive(body, 4, nullptr, 3), 4);
  EXPECT_EQ(response.receive(body + 4, 2, nullptr, 3), 2);
  EXPECT_EQ(response.receive(body, 0, nullptr, 3), 0);
  response.finishReceive();
  EXPECT_EQ(reader.log,
            "clear readyRead streamIn(abcd,4,0) streamIn(ef,2,0) streamIn(,0,0) "
            "streamIn(null,0,1) processResult ");

  reader.log.clear();
  response.switchReader(&second);
  response.readyReceive();
  EXPECT_EQ(second.log, "clear readyRead ");
  EXPECT_EQ(reader.log, "");
  EXPECT_EQ(response.findResultStruct(), nullptr);
}

TEST(MethodResponseTest, ReadyReceiveResetsSuccessAndErrorStrings) {
  JSONReader reader;
  StatusResponse response;
  response.json = &reader;
  response.initialize(&reader);

  struct Transfer {
    std::string body;
    bool success;
    const char* code;
    const char* message;
  } transfers[] = {
      {"{\"status\":\"ok\",\"message\":\"done\"}", true, "ok", "done"},
      {"{\"status\":\"denied\",\"message\":\"no token\"}", false, "denied", "no token"},
      {"{\"status\":\"ok\",", false, "ok", nullptr},
      {"{\"status\":\"ok\"}", true, "ok", nullptr},
  };
  for (Transfer& t : transfers) {
    SCOPED_TRACE(t.body);
    response.readyReceive();
    EXPECT_FALSE(response.isSuccess());
    EXPECT_EQ(response.getErrorCode(), "");
    EXPECT_EQ(response.getErrorMsg(), "");
    // The body arrives in three pieces, one cut inside a string.
    size_t third = t.body.size() / 3;
    for (size_t at = 0; at < t.body.size(); at += third) {
      size_t size = std::min(third, t.body.size() - at);
      EXPECT_EQ(response.receive(&t.body[at], static_cast<int>(size), nullptr, 1),
                static_cast<int>(size));
    }
    response.finishReceive();
    EXPECT_EQ(response.isSuccess(), t.success);
    EXPECT_EQ(response.getErrorCode(), t.code);
    if (t.message) {
      EXPECT_EQ(response.getErrorMsg(), t.message);
    } else if (reader.hasError()) {
      EXPECT_EQ(response.getErrorMsg(), reader.getError().message);
      EXPECT_FALSE(response.getErrorMsg().empty());
    }
  }
  EXPECT_EQ(response.processed, 4);
}

}  // namespace
