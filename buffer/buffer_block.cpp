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

void BufferBlock::out(unsigned long offset, void* dst, unsigned long len,
                      unsigned long* outLen) const {
  // The difference is judged as a 32-bit signed value, as callers of the
  // block interface have always seen it; blocks are far below 2 GiB.
  int32_t left = static_cast<int32_t>(payload_ - offset);
  unsigned long n = 0;
  if (left >= 1) {
    n = std::min<unsigned long>(static_cast<unsigned long>(left), len);
    std::memcpy(dst, data_.data() + offset, n);
  }
  *outLen = n;
}

}  // namespace util
