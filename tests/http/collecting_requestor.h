// A webs::Requestor for tests: keeps every body byte it is handed and can
// run a hook after each chunk or refuse chunks.
#ifndef CORVANE_TESTS_HTTP_COLLECTING_REQUESTOR_H_
#define CORVANE_TESTS_HTTP_COLLECTING_REQUESTOR_H_

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "http/requestor.h"

namespace testsupport {

class CollectingRequestor : public webs::Requestor {
 public:
  int receive(void* data, int size, void* curl, int version) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      bytes_.append(static_cast<const char*>(data), static_cast<size_t>(size));
      versions_.push_back(version);
      curl_ = curl;
    }
    received_ += size;
    chunks_++;
    if (refuse_) return 0;
    return size;
  }
  void readyReceive() override {}
  void finishReceive() override {}

  std::string bytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return bytes_;
  }
  std::vector<int> versions() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return versions_;
  }
  long long received() const { return received_.load(); }
  int chunks() const { return chunks_.load(); }
  void refuse(bool on) { refuse_ = on; }

 private:
  mutable std::mutex mutex_;
  std::string bytes_;
  std::vector<int> versions_;
  void* curl_ = nullptr;
  std::atomic<long long> received_{0};
  std::atomic<int> chunks_{0};
  std::atomic<bool> refuse_{false};
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_HTTP_COLLECTING_REQUESTOR_H_
