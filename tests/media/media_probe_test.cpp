// Real media through the library: clips made by the ffmpeg command are
// demuxed by FFmpeg over corvane-probe's AVIOContext (every read and seek
// goes through the C interface) and each packet's stream, timestamps, size
// and MD5 must equal what ffprobe reads straight from disk. Sources: the
// local path, nginx over HTTP and HTTPS, the scripted server dropping every
// connection after 512 KiB, two handles demuxing one URL at once, and a
// server that ignores Range.
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "media/media_support.h"
#include "support/nginx_fixture.h"
#include "support/scripted_http_server.h"

namespace testsupport {
namespace {

// A run that takes longer than this has hung (a normal one takes well under
// a few seconds, even under a sanitizer).
constexpr int kProbeDeadlineMs = 45000;
constexpr long long kDropAfter = 512 * 1024;

const MediaFormat kFormats[] = {
    // The muxer's default: the index (moov) is written after the media
    // data, so the demuxer skips to the tail and comes back.
    {"Mp4IndexAtEnd", "clip.mp4", {"-c:v", "mpeg4", "-b:v", "5M", "-c:a", "aac", "-f", "mp4"}},
    {"MpegTs", "clip.ts", {"-c:v", "mpeg2video", "-b:v", "5M", "-c:a", "mp2", "-f", "mpegts"}},
    {"Matroska", "clip.mkv",
     {"-c:v", "mpeg4", "-b:v", "5M", "-c:a", "aac", "-f", "matroska"}},
};

class MediaProbeTest : public ::testing::TestWithParam<MediaFormat> {
 protected:
  void SetUp() override {
    fullStacksForChildLeakReports();
    std::string ffmpeg = findOnPath("ffmpeg"), ffprobe = findOnPath("ffprobe");
    if (ffmpeg.empty() || ffprobe.empty()) GTEST_SKIP() << "the ffmpeg commands are not installed";
    std::string why;
    clip_ = makeClip(ffmpeg, GetParam(), dir_, &why);
    ASSERT_FALSE(clip_.empty()) << why;
    reference_ = ffprobePackets(ffprobe, clip_, dir_, &why);
    ASSERT_TRUE(why.empty()) << why;
    // Both streams of a four-second clip: anything less means the listing
    // was not understood.
    ASSERT_GT(reference_.size(), 200u) << "ffprobe listed too few packets";
    bytes_ = readFile(clip_);
    ASSERT_GT(static_cast<long long>(bytes_.size()), 4 * kDropAfter) << "clip too small";
  }

  RunResult probe(const std::string& location, std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {CORVANE_PROBE, "--packets"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back(location);
    return runProgram(args, dir_, "probe" + std::to_string(++runs_), kProbeDeadlineMs);
  }

  // Every section of the listing (one per thread) equals ffprobe's packets.
  void expectReference(const RunResult& r, size_t sections) {
    ASSERT_TRUE(r.finished) << "corvane-probe did not finish within the deadline";
    ASSERT_EQ(r.exitCode, 0) << r.err;
    auto listed = probePacketSections(r.out);
    ASSERT_EQ(listed.size(), sections) << r.out;
    for (size_t i = 0; i < listed.size(); ++i) {
      EXPECT_EQ(firstDifference(reference_, listed[i]), "") << "listing " << i;
    }
    std::cout << "[ packets  ] " << reference_.size() << " compared x " << sections << " ("
              << bytes_.size() << " bytes)\n";
  }

  std::shared_ptr<const std::string> content() const {
    return std::make_shared<const std::string>(bytes_);
  }

  TempDir dir_;
  std::string clip_;
  std::string bytes_;
  std::vector<std::string> reference_;
  int runs_ = 0;
};

TEST_P(MediaProbeTest, LocalPathMatchesFfprobe) {
  RunResult r = probe(clip_);
  expectReference(r, 1);
  EXPECT_NE(r.out.find("\nseekable: yes\n"), std::string::npos) << r.out;
}

TEST_P(MediaProbeTest, NginxHttpAndHttpsMatchFfprobe) {
  NginxFixture nginx;
  CV_START_NGINX_OR_SKIP(nginx);
  nginx.addFile(GetParam().fileName, bytes_);
  {
    SCOPED_TRACE("http");
    expectReference(probe(nginx.httpUrl(GetParam().fileName)), 1);
  }
  {
    SCOPED_TRACE("https");
    expectReference(probe(nginx.httpsUrl(GetParam().fileName)), 1);
  }
}

TEST_P(MediaProbeTest, ConnectionsDroppedEvery512KiBMatchFfprobe) {
  Script s;
  s.content = content();
  s.dropAfter = kDropAfter;
  ScriptedHttpServer server(s);
  ASSERT_TRUE(server.ok());
  expectReference(probe(server.url("/clip")), 1);
  // Each connection ends after 512 KiB, so reading the clip once takes at
  // least this many; the library went on with ranged requests each time.
  long long minimum = static_cast<long long>(bytes_.size()) / kDropAfter;
  EXPECT_GE(server.connectionCount(), minimum);
  int ranged = 0;
  long long size = static_cast<long long>(bytes_.size());
  bool tailSeen = false, backAfterTail = false;
  for (const RecordedRequest& r : server.requests()) {
    std::string range = r.header("Range");
    if (range.empty()) continue;
    ++ranged;
    long long from = std::atoll(range.c_str() + range.find('=') + 1);
    if (tailSeen && from < size / 2) backAfterTail = true;
    if (from >= size / 2 && !backAfterTail) tailSeen = true;
  }
  EXPECT_GE(ranged, minimum - 1);
  if (std::string(GetParam().name) == "Mp4IndexAtEnd") {
    // The index sits after the media data: the demuxer went to the tail
    // first and then back to the data.
    EXPECT_TRUE(tailSeen && backAfterTail);
  }
}

// A buffer much smaller than the clip (every step back of the demuxer and
// the jump to an index at the tail leave the buffered window), and two
// handles demuxing one URL at once.
TEST_P(MediaProbeTest, SmallLibraryBufferAndTwoHandlesAtOnceMatchFfprobe) {
  NginxFixture nginx;
  CV_START_NGINX_OR_SKIP(nginx);
  nginx.addFile(GetParam().fileName, bytes_);
  const std::string url = nginx.httpUrl(GetParam().fileName);
  {
    SCOPED_TRACE("256 KiB buffer");
    expectReference(probe(url, {"--buffer", "262144"}), 1);
  }
  {
    SCOPED_TRACE("two handles");
    expectReference(probe(url, {"--threads", "2"}), 2);
  }
}

// A server that answers every request with the whole file from its start:
// seeking back or far ahead cannot be served by a new request. A transport
// stream is read straight through and must come out exact; containers that
// need their tail either still come out exact or fail with a clear message,
// and nothing hangs.
TEST_P(MediaProbeTest, ServerIgnoringRangeIsExactOrFailsCleanly) {
  Script s;
  s.content = content();
  s.honourRange = false;
  ScriptedHttpServer server(s);
  ASSERT_TRUE(server.ok());
  RunResult r = probe(server.url("/clip"));
  ASSERT_TRUE(r.finished) << "corvane-probe hung on a server without ranges";
  // The library refuses a far seek on such a stream; the probe reads that
  // as not seekable, so FFmpeg does not seek to the tail for the duration.
  EXPECT_NE(r.out.find("\nseekable: no\n"), std::string::npos) << r.out;
  bool mustSucceed = std::string(GetParam().name) == "MpegTs";
  if (mustSucceed || r.exitCode == 0) {
    expectReference(r, 1);
  } else {
    EXPECT_EQ(r.exitCode, 1);
    size_t message = r.err.find("corvane-probe: " + server.url("/clip") + ": ");
    ASSERT_NE(message, std::string::npos) << r.err;
    std::cout << "[ no range ] " << GetParam().name << " failed cleanly: "
              << r.err.substr(message, r.err.find('\n', message) - message) << "\n";
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, MediaProbeTest, ::testing::ValuesIn(kFormats),
                         [](const ::testing::TestParamInfo<MediaFormat>& param) {
                           return std::string(param.param.name);
                         });

// Failures reach FFmpeg as errors and the command says what failed.
TEST(MediaProbeErrors, MissingSourcesFailWithAClearMessage) {
  fullStacksForChildLeakReports();
  TempDir dir;
  ScriptedHttpServer server;
  ASSERT_TRUE(server.ok());
  Script missing;
  missing.status = 404;
  missing.body = "no such clip";
  server.route("/missing", missing);
  struct Case {
    std::string location;
    std::string detail;  // also in the message
  };
  const Case cases[] = {{dir.file("absent.mp4"), "(library read: "},
                        {server.url("/missing"), "(HTTP status 404)"}};
  for (const Case& c : cases) {
    const std::string& location = c.location;
    SCOPED_TRACE(location);
    RunResult r = runProgram({CORVANE_PROBE, "--packets", location}, dir, "missing",
                             kProbeDeadlineMs);
    ASSERT_TRUE(r.finished);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out.find("packet "), std::string::npos);
    EXPECT_NE(r.err.find("corvane-probe: " + location + ": cannot open"), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find(c.detail), std::string::npos) << r.err;
  }
}

}  // namespace
}  // namespace testsupport
