#include "buffer/buffer_block.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <stdexcept>
#include <vector>

namespace util {

namespace {

// Storage of destroyed stream blocks, kept for the next ones. A queue's
// blocks go back to the system when the last file closes (the pool frees
// its spare list then), and the allocator hands the pages back at once: the
// next open faulted in and cleared its whole buffer again, most of a
// millisecond for the default 2 MiB before the first byte could be read.
// Kept up to the pools' own retention limit; never freed, as blocks may
// still be destroyed while the process exits.
constexpr size_t kRecycledCapacity = 32768;
constexpr size_t kRecycledMax = 1024;  // 32 MiB

struct Recycler {
  std::mutex lock;
  std::vector<unsigned char*> spare;
};

Recycler& recycler() {
  static Recycler* r = new Recycler();
  return *r;
}

// The storage of a block, failing as a vector of that length would.
// Recycled storage is not cleared again: no byte of a block is read above
// its payload, and every byte below it was written by this block's writer.
unsigned char* storage(int capacity) {
  if (capacity < 0) throw std::length_error("cannot create a block of negative size");
  if (static_cast<size_t>(capacity) == kRecycledCapacity) {
    Recycler& r = recycler();
    std::lock_guard<std::mutex> guard(r.lock);
    if (!r.spare.empty()) {
      unsigned char* p = r.spare.back();
      r.spare.pop_back();
      return p;
    }
  }
  // calloc(0) may answer null: an empty block still gets a pointer.
  void* p = std::calloc(capacity > 0 ? static_cast<size_t>(capacity) : 1, 1);
  if (p == nullptr) throw std::bad_alloc();
  return static_cast<unsigned char*>(p);
}

}  // namespace

BufferBlock::BufferBlock(int capacity)
    : data_(storage(capacity)), capacity_(static_cast<size_t>(capacity)) {}

BufferBlock::~BufferBlock() {
  if (capacity_ == kRecycledCapacity) {
    Recycler& r = recycler();
    std::lock_guard<std::mutex> guard(r.lock);
    if (r.spare.size() < kRecycledMax) {
      r.spare.push_back(data_);
      return;
    }
  }
  std::free(data_);
}

unsigned long BufferBlock::in(const unsigned char* src, unsigned long len) {
  unsigned long n = std::min<unsigned long>(sizeOfFree(), len);
  if (n > 0) std::memcpy(data_ + payload_, src, n);
  payload_ += n;
  return n;
}

unsigned long BufferBlock::outSize(unsigned long offset, unsigned long len) const {
  // The difference is judged as a 32-bit signed value, as callers of the
  // block interface have always seen it; blocks are far below 2 GiB.
  int32_t left = static_cast<int32_t>(payload_ - offset);
  if (left < 1) return 0;
  return std::min<unsigned long>(static_cast<unsigned long>(left), len);
}

void BufferBlock::copyOut(unsigned long offset, void* dst, unsigned long len) const {
  if (len > 0) std::memcpy(dst, data_ + offset, len);
}

void BufferBlock::out(unsigned long offset, void* dst, unsigned long len,
                      unsigned long* outLen) const {
  unsigned long n = outSize(offset, len);
  copyOut(offset, dst, n);
  *outLen = n;
}

}  // namespace util
