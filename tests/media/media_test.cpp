// Real media through the library: clips made by the ffmpeg command are
// demuxed by FFmpeg over corvane-probe's AVIOContext (every read and seek
// through the C interface), and each packet's stream, timestamps, size and
// MD5 must equal what ffprobe reads straight from disk: from the local
// path, a server dropping every connection after 512 KiB, and a server that
// ignores Range.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "support/scripted_http_server.h"

namespace testsupport {
namespace {

// Runs a shell command under a deadline; its standard output.
std::string run(const std::string& command, int* status) {
  std::string out;
  FILE* pipe = popen(("timeout 60 " + command + " 2>/dev/null").c_str(), "r");
  char buf[4096];
  for (size_t n; pipe && (n = fread(buf, 1, sizeof(buf), pipe)) > 0;) out.append(buf, n);
  *status = pipe ? pclose(pipe) : -1;
  return out;
}

TEST(Media, PacketsMatchFfprobeLocallyAndOverFaultyServers) {
  int status = 0;
  if (run("ffmpeg -version", &status).empty()) GTEST_SKIP() << "no ffmpeg command";
  // An Arm device under a sanitizer reports leaks of OpenSSL threads only
  // with full stacks.
  if (const char* asan = std::getenv("ASAN_OPTIONS")) {
    setenv("ASAN_OPTIONS", (std::string(asan) + ":fast_unwind_on_malloc=0").c_str(), 1);
  }
  // The mp4 muxer writes its index after the data: the demuxer goes to the
  // tail and comes back.
  const std::pair<const char*, const char*> formats[] = {
      {"clip.mp4", "-c:v mpeg4 -b:v 5M -c:a aac -f mp4"},
      {"clip.ts", "-c:v mpeg2video -b:v 5M -c:a mp2 -f mpegts"}};
  for (const auto& [name, codecs] : formats) {
    SCOPED_TRACE(name);
    TempDir dir;
    std::string clip = dir.file(name);
    run(std::string("ffmpeg -nostdin -y -v error -f lavfi -i testsrc=duration=4:size=640x360:rate=25 -f lavfi "
                    "-i sine=duration=4 -vf noise=alls=40:allf=t ") + codecs + " " + clip, &status);
    ASSERT_EQ(status, 0);
    std::vector<std::string> want;
    // Default writer: a [PACKET] ... [/PACKET] block of key=value lines per
    // packet (side data blocks inside some).
    std::istringstream in(run("ffprobe -v error -show_data_hash MD5 -show_entries "
                              "packet=stream_index,pts,dts,size,data_hash " + clip, &status));
    const std::string keys[] = {"stream_index", "pts", "dts", "size", "data_hash"};
    std::map<std::string, std::string> fields;
    for (std::string line; std::getline(in, line);) {
      size_t eq = line.find('=');
      if (line == "[/PACKET]") {
        std::string out = "packet";
        for (const std::string& key : keys) out += " " + key + "=" + fields[key];
        want.push_back(out);
      } else if (eq != std::string::npos && !fields.count(line.substr(0, eq))) {
        fields[line.substr(0, eq)] = line.substr(eq + 1);
      }
      if (line == "[PACKET]") fields.clear();
    }
    ASSERT_GT(want.size(), 200u);
    std::ifstream file(clip, std::ios::binary);
    Script s;
    s.content = std::make_shared<const std::string>(std::istreambuf_iterator<char>(file),
                                                    std::istreambuf_iterator<char>());
    s.dropPlan = {512 * 1024};
    ScriptedHttpServer server(s);
    Script noRanges = s;
    noRanges.dropPlan.clear();
    noRanges.honourRange = false;
    server.route("/whole", noRanges);
    for (const std::string& location : {clip, server.url("/clip"), server.url("/whole")}) {
      std::string listing = run(std::string(CORVANE_PROBE) + " --packets " + location, &status);
      // Without ranges the tail an mp4 needs cannot be reached: a clean
      // failure is allowed there, a wrong packet never.
      if (location == server.url("/whole") && std::string(name) == "clip.mp4" && status != 0) continue;
      EXPECT_EQ(status, 0) << location;
      std::vector<std::string> got;
      std::istringstream lines(listing);
      for (std::string line; std::getline(lines, line);) {
        if (line.rfind("packet ", 0) == 0) got.push_back(line);
      }
      EXPECT_EQ(got, want) << location;
    }
    EXPECT_GE(server.rangeStarts("/clip").size(), s.content->size() / (512 * 1024));
  }
}

}  // namespace
}  // namespace testsupport
