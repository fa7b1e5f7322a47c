// Helpers of the real-media tests: child processes with deadlines, media
// clips made with the ffmpeg command, and packet listings (ffprobe's and
// corvane-probe's) in one comparable form.
#ifndef CORVANE_TESTS_MEDIA_MEDIA_SUPPORT_H_
#define CORVANE_TESTS_MEDIA_MEDIA_SUPPORT_H_

#include <sys/types.h>

#include <ostream>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace testsupport {

// A program run with its output in files; the destructor kills it if it is
// still running and reaps it.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts `args[0]` (a path) with stdout and stderr going to the files.
  bool start(const std::vector<std::string>& args, const std::string& outPath,
             const std::string& errPath);
  // Waits up to `timeoutMs` for the exit; false (and the child killed) when
  // it did not end in time.
  bool waitExit(int timeoutMs);
  // Exit status, or 128 + signal when it was killed by one.
  int exitCode() const { return exitCode_; }

 private:
  pid_t pid_ = -1;
  int exitCode_ = -1;
};

// What a finished run left behind.
struct RunResult {
  bool finished = false;  // exited before the deadline
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Runs `args` to the end or the deadline; output files go into `dir`
// under `tag`.
RunResult runProgram(const std::vector<std::string>& args, const TempDir& dir,
                     const std::string& tag, int timeoutMs);

// Under AddressSanitizer (ASAN_OPTIONS set), asks the programs this process
// starts for full malloc stacks: OpenSSL is built without frame pointers,
// and the leak suppressions of its per-thread state name functions inside
// it. Call before starting any thread.
void fullStacksForChildLeakReports();

// Full path of a program on PATH, or "".
std::string findOnPath(const std::string& name);

std::string readFile(const std::string& path);

// A few seconds of lavfi test picture with noise (so the clip is a few MiB)
// and a sine tone.
struct MediaFormat {
  const char* name;       // test name part
  const char* fileName;   // in the temporary directory
  std::vector<std::string> encodeArgs;  // codecs, muxer and its options
};

// Test names and failure messages name the format, not its bytes.
void PrintTo(const MediaFormat& format, std::ostream* os);

// Makes the clip with `ffmpeg` into `dir`; "" and the reason in `why` on
// failure.
std::string makeClip(const std::string& ffmpeg, const MediaFormat& format, const TempDir& dir,
                     std::string* why);

// ffprobe's packets of `path` read straight from disk, as corvane-probe
// prints them: "packet stream_index=S pts=P dts=D size=N data_hash=MD5:..".
std::vector<std::string> ffprobePackets(const std::string& ffprobe, const std::string& path,
                                        const TempDir& dir, std::string* why);

// The "packet ..." lines of a corvane-probe listing, split per "# thread N"
// section (one section when the listing has no thread headers).
std::vector<std::vector<std::string>> probePacketSections(const std::string& out);

// Empty when `got` equals `want` line by line; else the first difference.
std::string firstDifference(const std::vector<std::string>& want,
                            const std::vector<std::string>& got);

}  // namespace testsupport

#endif  // CORVANE_TESTS_MEDIA_MEDIA_SUPPORT_H_
