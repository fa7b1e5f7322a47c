// Which source a location gets, and its release.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "source/file_request_adaptor.h"
#include "source/http_file_request.h"
#include "source/local_file_request.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

using testsupport::LogCapture;

namespace {

struct KindCase {
  const char* location;
  FileRequestAdaptor::Kind kind;
};

class AdaptorKinds : public ::testing::TestWithParam<KindCase> {};

TEST_P(AdaptorKinds, ChoosesBySubstringAndBuildsThatSource) {
  const KindCase& c = GetParam();
  EXPECT_EQ(FileRequestAdaptor::kindOf(c.location), c.kind) << c.location;
  std::unique_ptr<FileRequest> request(FileRequestAdaptor::createFileRequest(c.location));
  ASSERT_EQ(request != nullptr, c.kind != FileRequestAdaptor::KIND_NONE);
  if (c.kind == FileRequestAdaptor::KIND_LOCAL) {
    EXPECT_EQ(request->getRequestType(), 0);
    EXPECT_NE(dynamic_cast<LocalFileRequest*>(request.get()), nullptr);
  } else if (c.kind == FileRequestAdaptor::KIND_HTTP) {
    EXPECT_EQ(request->getRequestType(), 1);
    EXPECT_NE(dynamic_cast<webs::HttpFileRequest*>(request.get()), nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Locations, AdaptorKinds,
    ::testing::Values(KindCase{"/data/movie.ts", FileRequestAdaptor::KIND_LOCAL},
                      KindCase{"a/b", FileRequestAdaptor::KIND_LOCAL},
                      KindCase{"/", FileRequestAdaptor::KIND_LOCAL},
                      KindCase{"movie.ts", FileRequestAdaptor::KIND_NONE},
                      KindCase{"", FileRequestAdaptor::KIND_NONE},
                      KindCase{"ftp:x", FileRequestAdaptor::KIND_NONE},
                      KindCase{"http://", FileRequestAdaptor::KIND_HTTP},
                      KindCase{"http://host/a", FileRequestAdaptor::KIND_HTTP},
                      KindCase{"https://host/a", FileRequestAdaptor::KIND_HTTP},
                      KindCase{"/mnt/usb/http://x", FileRequestAdaptor::KIND_HTTP},
                      KindCase{"xx https://h", FileRequestAdaptor::KIND_HTTP},
                      KindCase{"HTTP://host/a", FileRequestAdaptor::KIND_LOCAL}),
    [](const ::testing::TestParamInfo<KindCase>& p) { return "Case" + std::to_string(p.index); });

TEST(FileRequestAdaptor, ReleaseLogsAndDeletes) {
  testsupport::TempDir dir;
  std::string path = dir.write("f", "abc");
  FileRequest* request = FileRequestAdaptor::createFileRequest(path);
  ASSERT_NE(request, nullptr);
  ASSERT_TRUE(request->initialize());
  EXPECT_EQ(request->getContentSize(), 3);
  LogCapture log(1);
  FileRequestAdaptor::releaseFileRequest(request);
  int begin = log.indexOf("begin to release FileRequest");
  int relBegin = log.indexOf("file relsease begin", begin);
  int end = log.indexOf("end to release FileRequest", relBegin);
  int deleted = log.indexOf("Deleted request", end);
  EXPECT_GE(begin, 0);
  EXPECT_GT(relBegin, begin);
  EXPECT_GT(end, relBegin);
  EXPECT_GT(deleted, end);
}

}  // namespace
