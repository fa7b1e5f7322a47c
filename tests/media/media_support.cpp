#include "media/media_support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/wait.h"

namespace testsupport {

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
}

bool ChildProcess::start(const std::vector<std::string>& args, const std::string& outPath,
                         const std::string& errPath) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int in = open("/dev/null", O_RDONLY);
    if (out < 0 || err < 0 || in < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid_ > 0;
}

bool ChildProcess::waitExit(int timeoutMs) {
  if (pid_ <= 0) return exitCode_ >= 0;
  int status = 0;
  bool ended = waitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeoutMs);
  if (!ended) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return ended;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

RunResult runProgram(const std::vector<std::string>& args, const TempDir& dir,
                     const std::string& tag, int timeoutMs) {
  RunResult r;
  std::string out = dir.file(tag + ".out"), err = dir.file(tag + ".err");
  ChildProcess child;
  if (!child.start(args, out, err)) return r;
  r.finished = child.waitExit(timeoutMs);
  r.exitCode = child.exitCode();
  r.out = readFile(out);
  r.err = readFile(err);
  return r;
}

void fullStacksForChildLeakReports() {
  const char* options = std::getenv("ASAN_OPTIONS");
  if (options == nullptr) return;
  std::string more = std::string(options) + ":fast_unwind_on_malloc=0";
  setenv("ASAN_OPTIONS", more.c_str(), 1);
}

std::string findOnPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path ? path : "/usr/bin:/bin");
  std::string d;
  while (std::getline(dirs, d, ':')) {
    std::string full = (d.empty() ? "." : d) + "/" + name;
    if (access(full.c_str(), X_OK) == 0) return full;
  }
  return "";
}

void PrintTo(const MediaFormat& format, std::ostream* os) { *os << format.name; }

std::string makeClip(const std::string& ffmpeg, const MediaFormat& format, const TempDir& dir,
                     std::string* why) {
  std::string path = dir.file(format.fileName);
  std::vector<std::string> args = {
      ffmpeg, "-nostdin", "-hide_banner", "-loglevel", "error", "-y",
      "-f", "lavfi", "-i", "testsrc=size=640x360:rate=25:duration=4",
      "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=44100:duration=4",
      // Noise keeps the picture from compressing to almost nothing, so the
      // clip is larger than the library's buffer and the drop interval.
      "-vf", "noise=alls=30:allf=t", "-fflags", "+bitexact", "-map_metadata", "-1"};
  args.insert(args.end(), format.encodeArgs.begin(), format.encodeArgs.end());
  args.push_back(path);
  RunResult r = runProgram(args, dir, "ffmpeg", 60000);
  if (!r.finished || r.exitCode != 0) {
    *why = "ffmpeg failed (" + std::to_string(r.exitCode) + "): " + r.err;
    return "";
  }
  return path;
}

std::vector<std::string> ffprobePackets(const std::string& ffprobe, const std::string& path,
                                        const TempDir& dir, std::string* why) {
  RunResult r = runProgram({ffprobe, "-v", "error", "-show_data_hash", "MD5", "-show_entries",
                            "packet=stream_index,pts,dts,size,data_hash", path},
                           dir, "ffprobe", 60000);
  std::vector<std::string> lines;
  if (!r.finished || r.exitCode != 0) {
    *why = "ffprobe failed (" + std::to_string(r.exitCode) + "): " + r.err;
    return lines;
  }
  // Default writer: one "[PACKET]" ... "[/PACKET]" block of key=value lines
  // per packet (with an empty side data block on some).
  std::istringstream in(r.out);
  std::string line;
  std::string fields[5];
  const char* keys[5] = {"stream_index", "pts", "dts", "size", "data_hash"};
  while (std::getline(in, line)) {
    if (line == "[PACKET]") {
      for (std::string& f : fields) f = "?";
    } else if (line == "[/PACKET]") {
      std::string out = "packet";
      for (int i = 0; i < 5; ++i) out += std::string(" ") + keys[i] + "=" + fields[i];
      lines.push_back(out);
    } else {
      size_t eq = line.find('=');
      if (eq == std::string::npos) continue;
      for (int i = 0; i < 5; ++i) {
        if (line.compare(0, eq, keys[i]) == 0 && eq == std::string(keys[i]).size()) {
          fields[i] = line.substr(eq + 1);
        }
      }
    }
  }
  return lines;
}

std::vector<std::vector<std::string>> probePacketSections(const std::string& out) {
  std::vector<std::vector<std::string>> sections;
  std::istringstream in(out);
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 9, "# thread ") == 0 || sections.empty()) sections.emplace_back();
    if (line.compare(0, 7, "packet ") == 0) sections.back().push_back(line);
  }
  return sections;
}

std::string firstDifference(const std::vector<std::string>& want,
                            const std::vector<std::string>& got) {
  for (size_t i = 0; i < want.size() && i < got.size(); ++i) {
    if (want[i] != got[i]) {
      return "packet " + std::to_string(i) + " differs:\n  want " + want[i] + "\n  got  " +
             got[i];
    }
  }
  if (want.size() != got.size()) {
    return std::to_string(want.size()) + " packets wanted, " + std::to_string(got.size()) +
           " listed";
  }
  return "";
}

}  // namespace testsupport
