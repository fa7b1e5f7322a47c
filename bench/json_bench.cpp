// JSON parsing speed: JSONReader fed a generated 20 MB document in 64 KiB
// pieces, beside nlohmann::json parsing the same text into its own tree.
//
// Prints MB/s (best of several runs, 1 MB = 10^6 bytes), the peak heap each
// parser needed on top of the text (counted by this program's operator
// new), and the speed ratio. It measures only; it asserts no time.
//   json_bench [MB] [runs]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <random>
#include <string>

#include <nlohmann/json.hpp>

#include "doc/json_reader.h"

namespace {

std::atomic<size_t> gLive{0};
std::atomic<size_t> gPeak{0};

void noteAlloc(size_t size) {
  size_t live = gLive.fetch_add(size, std::memory_order_relaxed) + size;
  size_t peak = gPeak.load(std::memory_order_relaxed);
  while (live > peak && !gPeak.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
  }
}

}  // namespace

// Every allocation carries its size in a 16-byte header so that delete can
// count it back.
void* operator new(size_t size) {
  void* block = std::malloc(size + 16);
  if (!block) throw std::bad_alloc();
  *static_cast<size_t*>(block) = size;
  noteAlloc(size);
  return static_cast<char*>(block) + 16;
}
void operator delete(void* p) noexcept {
  if (!p) return;
  char* block = static_cast<char*>(p) - 16;
  gLive.fetch_sub(*reinterpret_cast<size_t*>(block), std::memory_order_relaxed);
  std::free(block);
}
void* operator new[](size_t size) { return operator new(size); }
void operator delete[](void* p) noexcept { operator delete(p); }
void operator delete(void* p, size_t) noexcept { operator delete(p); }
void operator delete[](void* p, size_t) noexcept { operator delete(p); }

namespace {

// Records of a typical web-method reply: strings (some with escapes and
// non-ASCII text), integers, decimals, literals, a small nested object and
// an array.
std::string generate(size_t targetBytes) {
  std::mt19937 rng(20240601);
  std::string out;
  out.reserve(targetBytes + 4096);
  out += "{\"status\":\"ok\",\"count\":0,\"items\":[\n";
  for (int id = 0; out.size() < targetBytes; ++id) {
    if (id) out += ",\n";
    char record[768];
    std::snprintf(
        record, sizeof(record),
        "{\"id\":%d,\"title\":\"Episode %u: the \\\"long\\\" road \\u2014 part %u\","
        "\"channel\":\"Caf\xC3\xA9 TV \xE6\x97\xA5\xE6\x9C\xAC\",\"url\":\"http:\\/\\/media."
        "example\\/v\\/%08x.m3u8\",\"duration\":%u,\"rating\":%u.%02u,\"bitrate\":-%ue%u,"
        "\"live\":%s,\"drm\":null,\"tags\":[\"news\",\"hd\",%u,true],"
        "\"poster\":{\"w\":%u,\"h\":%u,\"alt\":\"line1\\nline2\\ttab\"}}",
        id, static_cast<unsigned>(rng() % 1000), static_cast<unsigned>(rng() % 9),
        static_cast<unsigned>(rng()), static_cast<unsigned>(rng() % 7200),
        static_cast<unsigned>(rng() % 10), static_cast<unsigned>(rng() % 100),
        static_cast<unsigned>(rng() % 5000), static_cast<unsigned>(rng() % 4),
        rng() % 2 ? "true" : "false", static_cast<unsigned>(rng() % 100),
        static_cast<unsigned>(320 + rng() % 1600), static_cast<unsigned>(180 + rng() % 900));
    out += record;
  }
  out += "\n]}\n";
  return out;
}

double seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

struct Figures {
  double bestSeconds = 1e30;
  size_t peakBytes = 0;
};

}  // namespace

int main(int argc, char** argv) {
  size_t megabytes = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 20;
  int runs = argc > 2 ? std::atoi(argv[2]) : 5;
  const size_t kPiece = 64 * 1024;
  std::string text = generate(megabytes * 1000 * 1000);
  double mb = static_cast<double>(text.size()) / 1e6;
  std::printf("document: %.2f MB, pieces of %zu bytes, best of %d runs\n", mb, kPiece, runs);

  Figures ours;
  Figures theirs;
  size_t ourNodes = 0;
  size_t theirItems = 0;
  for (int run = 0; run < runs; ++run) {
    {
      size_t base = gLive.load();
      gPeak.store(base);
      auto start = std::chrono::steady_clock::now();
      webs::JSONReader reader;
      reader.initialize();
      for (size_t at = 0; at < text.size(); at += kPiece) {
        size_t size = std::min(kPiece, text.size() - at);
        reader.streamIn(text.data() + at, static_cast<int>(size), 0);
      }
      reader.streamIn(nullptr, 0, 1);
      double took = seconds(start);
      if (!reader.isComplete()) {
        std::fprintf(stderr, "JSONReader failed: %s\n", reader.getError().message.c_str());
        return 1;
      }
      ourNodes = reader.getPoolNodeCount();
      const webs::TreeNode* items = reader.lookup("items");
      theirItems = items ? static_cast<size_t>(items->getChildCount()) : 0;
      if (took < ours.bestSeconds) ours.bestSeconds = took;
      ours.peakBytes = std::max(ours.peakBytes, gPeak.load() - base);
    }
    {
      size_t base = gLive.load();
      gPeak.store(base);
      auto start = std::chrono::steady_clock::now();
      nlohmann::json doc = nlohmann::json::parse(text);
      double took = seconds(start);
      if (doc["items"].size() != theirItems) {
        std::fprintf(stderr, "item counts differ: %zu and %zu\n", theirItems,
                     doc["items"].size());
        return 1;
      }
      if (took < theirs.bestSeconds) theirs.bestSeconds = took;
      theirs.peakBytes = std::max(theirs.peakBytes, gPeak.load() - base);
    }
  }
  double ourRate = mb / ours.bestSeconds;
  double theirRate = mb / theirs.bestSeconds;
  std::printf("JSONReader     %8.1f MB/s  peak heap %7.1f MB  (%zu node records, %zu items)\n",
              ourRate, ours.peakBytes / 1e6, ourNodes, theirItems);
  std::printf("nlohmann::json %8.1f MB/s  peak heap %7.1f MB  (whole text at once)\n", theirRate,
              theirs.peakBytes / 1e6);
  std::printf("speed ratio JSONReader / nlohmann::json: %.2f\n", ourRate / theirRate);
  return 0;
}
