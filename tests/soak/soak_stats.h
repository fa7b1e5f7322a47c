// Figures of the fault soak: operations by kind, verified bytes, results by
// code, the longest call, and the faults that fail the run.
//
// One SoakStats is shared by every soak thread; its mutex guards all of it.
#ifndef CORVANE_TESTS_SOAK_SOAK_STATS_H_
#define CORVANE_TESTS_SOAK_SOAK_STATS_H_

#include <cstdio>
#include <map>
#include <mutex>
#include <string>

namespace soak {

class SoakStats {
 public:
  void op(const std::string& kind) {
    std::lock_guard<std::mutex> lock(mutex_);
    ops_[kind]++;
  }
  void verified(long long bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    bytesVerified_ += bytes;
  }
  // A result other than success, by operation and code.
  void result(const std::string& kind, int code) {
    std::lock_guard<std::mutex> lock(mutex_);
    results_[kind + " " + std::to_string(code)]++;
  }
  void duration(const std::string& kind, long long ms, const std::string& context) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (ms > longestMs_) {
      longestMs_ = ms;
      longestWhat_ = kind + " (" + context + ")";
    }
  }
  // Something that fails the run, with the first few described.
  void fault(const std::string& kind, const std::string& detail) {
    count(&faults_, &faultLines_, 20, "soak FAULT", kind, detail);
  }
  // Noted and reported, not failing the run.
  void anomaly(const std::string& kind, const std::string& detail) {
    count(&anomalies_, &anomalyLines_, 10, "soak note", kind, detail);
  }
  long long faultCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    long long n = 0;
    for (const auto& f : faults_) n += f.second;
    return n;
  }
  long long longestMs() {
    std::lock_guard<std::mutex> lock(mutex_);
    return longestMs_;
  }

  void print(int connections, long long boundMs) {
    std::lock_guard<std::mutex> lock(mutex_);
    long long total = 0;
    for (const auto& o : ops_) total += o.second;
    std::printf("soak: operations %lld:", total);
    for (const auto& o : ops_) std::printf(" %s %lld", o.first.c_str(), o.second);
    std::printf("\nsoak: bytes verified %lld\n", bytesVerified_);
    std::printf("soak: connections seen by the server %d\n", connections);
    std::printf("soak: failures by result code:");
    if (results_.empty()) std::printf(" none");
    for (const auto& r : results_) std::printf(" [%s]x%lld", r.first.c_str(), r.second);
    std::printf("\nsoak: longest call %lld ms, %s (bound %lld ms)\n", longestMs_,
                longestWhat_.c_str(), boundMs);
    std::printf("soak: anomalies:");
    if (anomalies_.empty()) std::printf(" none");
    for (const auto& a : anomalies_) std::printf(" %s %lld", a.first.c_str(), a.second);
    std::printf("\nsoak: faults:");
    if (faults_.empty()) std::printf(" none");
    for (const auto& f : faults_) std::printf(" %s %lld", f.first.c_str(), f.second);
    std::printf("\n");
    std::fflush(stdout);
  }

 private:
  // Counts `kind` in `counts` and describes the first `maxLines` on stderr.
  void count(std::map<std::string, long long>* counts, int* lines, int maxLines,
             const char* prefix, const std::string& kind, const std::string& detail) {
    std::lock_guard<std::mutex> lock(mutex_);
    (*counts)[kind]++;
    if (*lines < maxLines) {
      ++*lines;
      std::fprintf(stderr, "%s %s: %s\n", prefix, kind.c_str(), detail.c_str());
    }
  }
  std::mutex mutex_;
  std::map<std::string, long long> ops_;
  std::map<std::string, long long> results_;
  std::map<std::string, long long> faults_;
  std::map<std::string, long long> anomalies_;
  long long bytesVerified_ = 0;
  long long longestMs_ = 0;
  std::string longestWhat_ = "none";
  int faultLines_ = 0;
  int anomalyLines_ = 0;
};

}  // namespace soak

#endif  // CORVANE_TESTS_SOAK_SOAK_STATS_H_
