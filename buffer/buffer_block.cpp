#include "buffer/buffer_block.h"

#include <algorithm>
#include <cstring>

namespace util {

BufferBlock::BufferBlock(int capacity) : data_(static_cast<size_t>(capacity), 0) {}

BufferBlock::~BufferBlock() = default;

unsigned long BufferBlock::in(const unsigned char* src, unsigned long len) {
  unsigned long n = std::min<unsigned long>(sizeOfFree(), len);
  if (n > 0) std::memcpy(data_.data() + payload_, src, n);
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
  if (len > 0) std::memcpy(dst, data_.data() + offset, len);
}

void BufferBlock::out(unsigned long offset, void* dst, unsigned long len,
                      unsigned long* outLen) const {
  unsigned long n = outSize(offset, len);
  copyOut(offset, dst, n);
  *outLen = n;
}

}  // namespace util
