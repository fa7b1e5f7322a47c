// Reading a page-cached local file through the buffer queue (fed by the
// local file source) against plain read(2), sequentially with 64 KiB reads,
// and random 64 KiB reads at 1000 offsets. It measures and prints; it
// asserts nothing.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "buffer/buffer_queue.h"
#include "source/local_file_request.h"

namespace {

constexpr long long kFileSize = 256LL * 1024 * 1024;
constexpr unsigned long kReadSize = 64 * 1024;
constexpr int kQueueBuffer = 2 * 1024 * 1024;  // what a file handle gets

// Context switches of the whole process so far (voluntary: a thread slept;
// involuntary: it was preempted), a load-independent view of the wake-ups.
long contextSwitches(long* involuntary) {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  *involuntary = usage.ru_nivcsw;
  return usage.ru_nvcsw;
}

// CPU time of the whole process so far (all threads, user and system): on a
// shared machine the wall-clock ratio depends on what else runs, this less.
double cpuSeconds() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU time of the calling thread so far: with cpuSeconds(), the split
// between the reading thread and the producer's.
double threadCpuSeconds() {
  struct rusage usage;
  getrusage(RUSAGE_THREAD, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double seconds(std::chrono::steady_clock::time_point from) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
}

bool makeFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return false;
  std::vector<unsigned char> block(1 << 20);
  for (long long done = 0; done < kFileSize; done += static_cast<long long>(block.size())) {
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<unsigned char>((done + i) * 131);
    if (::write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) {
      ::close(fd);
      return false;
    }
  }
  ::close(fd);
  return true;
}

double lastCpuMs = 0;  // CPU time of the last sequential pass, all threads
double lastReaderCpuMs = 0;  // the same, the reading thread alone

double plainSequential(const std::string& path, std::vector<char>& buffer) {
  int fd = ::open(path.c_str(), O_RDONLY);
  double cpuBefore = cpuSeconds();
  auto start = std::chrono::steady_clock::now();
  long long total = 0;
  for (;;) {
    ssize_t n = ::read(fd, buffer.data(), kReadSize);
    if (n <= 0) break;
    total += n;
  }
  double elapsed = seconds(start);
  lastCpuMs = (cpuSeconds() - cpuBefore) * 1000.0;
  ::close(fd);
  return static_cast<double>(total) / elapsed / (1024.0 * 1024.0);
}

struct QueuedFile {
  explicit QueuedFile(const std::string& path) : request(path), queue(kQueueBuffer) {
    request.initialize();
    queue.initialize(&request);
    request.setOut(&queue);
  }
  ~QueuedFile() { queue.release(); }
  LocalFileRequest request;
  util::BufferQueue queue;
};

double queuedSequential(const std::string& path, std::vector<char>& buffer, long long* checksum) {
  QueuedFile file(path);
  long involuntaryBefore = 0;
  long voluntaryBefore = contextSwitches(&involuntaryBefore);
  double cpuBefore = cpuSeconds();
  double readerCpuBefore = threadCpuSeconds();
  auto start = std::chrono::steady_clock::now();
  long long total = 0;
  for (;;) {
    unsigned long got = 0;
    int result = file.queue.read(buffer.data(), kReadSize, &got);
    if (result != 0 || got == 0) break;
    *checksum += static_cast<unsigned char>(buffer[got - 1]);
    total += static_cast<long long>(got);
  }
  double elapsed = seconds(start);
  lastCpuMs = (cpuSeconds() - cpuBefore) * 1000.0;
  lastReaderCpuMs = (threadCpuSeconds() - readerCpuBefore) * 1000.0;
  long involuntary = 0;
  long voluntary = contextSwitches(&involuntary) - voluntaryBefore;
  involuntary -= involuntaryBefore;
  std::printf("queue sequential: %ld voluntary and %ld involuntary context switches (%.2f per MiB)\n",
              voluntary, involuntary,
              static_cast<double>(voluntary + involuntary) / (kFileSize / (1024.0 * 1024.0)));
  if (total != kFileSize) std::printf("queue read stopped at %lld of %lld bytes\n", total, kFileSize);
  return static_cast<double>(total) / elapsed / (1024.0 * 1024.0);
}

void queuedRandom(const std::string& path, std::vector<char>& buffer) {
  QueuedFile file(path);
  std::mt19937_64 rng(12345);
  std::vector<double> micros;
  int wrong = 0;
  for (int i = 0; i < 1000; ++i) {
    long long offset = static_cast<long long>(rng() % static_cast<unsigned long long>(kFileSize - kReadSize));
    auto start = std::chrono::steady_clock::now();
    long long at = 0;
    file.queue.seek(offset, &at);
    unsigned long total = 0;
    while (total < kReadSize) {
      unsigned long got = 0;
      if (file.queue.read(buffer.data() + total, kReadSize - total, &got) != 0 || got == 0) break;
      total += got;
    }
    micros.push_back(seconds(start) * 1e6);
    if (total != kReadSize || static_cast<unsigned char>(buffer[0]) != static_cast<unsigned char>(offset * 131)) {
      ++wrong;
    }
  }
  std::sort(micros.begin(), micros.end());
  std::printf("random 64 KiB reads through the queue: median %.0f us, p95 %.0f us (%d wrong)\n",
              micros[micros.size() / 2], micros[micros.size() * 95 / 100], wrong);
}

}  // namespace

int main(int argc, char** argv) {
  std::string path = argc > 1 ? argv[1] : "/tmp/corvane_bench_256m.dat";
  if (!makeFile(path)) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    return 1;
  }
  std::vector<char> buffer(kReadSize);
  plainSequential(path, buffer);  // warms the page cache
  if (argc > 2 && std::string(argv[2]) == "queue") {
    // Only the sequential pass through the queue, e.g. to profile it.
    long long sum = 0;
    double queuedOnly = queuedSequential(path, buffer, &sum);
    std::printf("queue %.0f MiB/s, CPU time %.0f ms (reading thread %.0f ms)\n", queuedOnly,
                lastCpuMs, lastReaderCpuMs);
    ::unlink(path.c_str());
    return sum == 0 ? 2 : 0;
  }
  // Rounds of read(2), queue, read(2): on a shared machine one round says
  // little, the median and the range of the rounds more.
  constexpr int kRounds = 5;
  std::vector<double> ratios, queueCpus, readerCpus, plainCpus;
  long long checksum = 0;
  for (int round = 1; round <= kRounds; ++round) {
    double plain = plainSequential(path, buffer);
    plainCpus.push_back(lastCpuMs);
    double queued = queuedSequential(path, buffer, &checksum);
    queueCpus.push_back(lastCpuMs);
    readerCpus.push_back(lastReaderCpuMs);
    double plainBest = std::max(plain, plainSequential(path, buffer));
    ratios.push_back(queued / plainBest);
    std::printf("round %d: sequential 64 KiB reads of 256 MiB: read(2) %.0f MiB/s, queue %.0f MiB/s, "
                "ratio %.2f; CPU time (all threads) read(2) %.0f ms, queue %.0f ms (reading thread "
                "%.0f ms)\n",
                round, plainBest, queued, ratios.back(), plainCpus.back(), queueCpus.back(),
                readerCpus.back());
  }
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  std::printf("sequential ratio queue / read(2): median %.2f, range %.2f-%.2f over %d rounds\n",
              median(ratios), *std::min_element(ratios.begin(), ratios.end()),
              *std::max_element(ratios.begin(), ratios.end()), kRounds);
  std::printf("CPU time of the sequential pass, medians (all threads): read(2) %.0f ms, queue %.0f ms "
              "(reading thread %.0f ms)\n",
              median(plainCpus), median(queueCpus), median(readerCpus));
  queuedRandom(path, buffer);
  ::unlink(path.c_str());
  return checksum == 0 ? 2 : 0;
}
