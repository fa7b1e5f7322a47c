#include "buffer/buffer_block.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

namespace util {

namespace {

// The storage of a block, failing as a vector of that length would.
unsigned char* zeroFilled(int capacity) {
  if (capacity < 0) throw std::length_error("cannot create a block of negative size");
  // calloc(0) may answer null: an empty block still gets a pointer.
  void* p = std::calloc(capacity > 0 ? static_cast<size_t>(capacity) : 1, 1);
  if (p == nullptr) throw std::bad_alloc();
  return static_cast<unsigned char*>(p);
}

}  // namespace

BufferBlock::BufferBlock(int capacity)
    : data_(zeroFilled(capacity)), capacity_(static_cast<size_t>(capacity)) {}

BufferBlock::~BufferBlock() { std::free(data_); }

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
