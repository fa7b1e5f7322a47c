// util::BufferBlock: one fixed-size block of a stream buffer, holding the
// contiguous run [beginning, beginning + payload) of the stream.
//
// Owned by a BufferQueue while in use and by a BufferBlockPool while spare.
// The block has no lock of its own: the owning queue's stream lock guards it.
#ifndef CORVANE_BUFFER_BUFFER_BLOCK_H_
#define CORVANE_BUFFER_BUFFER_BLOCK_H_

#include <cstddef>
#include <cstdint>

namespace util {

class BufferBlock {
 public:
  // An empty block of `capacity` bytes beginning at offset 0; its storage
  // may be that of a destroyed block (see buffer_block.cpp).
  explicit BufferBlock(int capacity);
  virtual ~BufferBlock();

  BufferBlock(const BufferBlock&) = delete;
  BufferBlock& operator=(const BufferBlock&) = delete;

  // Appends up to the free room; returns the bytes copied (0 when full).
  unsigned long in(const unsigned char* src, unsigned long len);
  // Copies from `offset` (relative to the block's first byte) up to the
  // payload; *outLen = bytes copied.
  void out(unsigned long offset, void* dst, unsigned long len, unsigned long* outLen) const;
  // The count out() would copy from `offset`, at most `len`.
  unsigned long outSize(unsigned long offset, unsigned long len) const;
  // Copies exactly `len` held bytes from `offset`. It touches those bytes
  // only (not the payload count), so a reader may run it without the queue's
  // lock while the writer appends behind them.
  void copyOut(unsigned long offset, void* dst, unsigned long len) const;

  // The free room after the payload, and taking `len` bytes written there
  // as payload (at most the free room).
  unsigned char* freeRoom() { return data_ + payload_; }
  void commitIn(unsigned long len) { payload_ += len < sizeOfFree() ? len : sizeOfFree(); }

  unsigned long sizeOfFree() const { return capacity_ - payload_; }
  unsigned long size() const { return capacity_; }
  unsigned long payloadSize() const { return payload_; }
  long long getBeginningSeqNum() const { return beginning_; }
  bool getFlag() const { return flag_; }

  // The byte at `seq` is held.
  bool isContained(long long seq) const {
    return beginning_ <= seq && seq < beginning_ + static_cast<long long>(payload_);
  }
  // The byte at `seq` would land here if the block is filled on.
  bool willContained(long long seq) const {
    return beginning_ <= seq && seq < beginning_ + static_cast<long long>(capacity_);
  }
  bool isForwarding(long long seq) const { return beginning_ <= seq; }
  // Rebases the block to `seq`, emptying it.
  void setBeginningSeqNum(long long seq, bool flag) {
    payload_ = 0;
    beginning_ = seq;
    flag_ = flag;
  }

  // Unused: never written since its last rebase to 0.
  bool isUnused() const { return beginning_ == 0 && payload_ == 0; }
  long long endSeqNum() const { return beginning_ + static_cast<long long>(payload_); }

  uint32_t index = 0;  // ordinal in its queue; 0 while pooled

 private:
  // Fresh storage comes zero-filled from calloc, whose new pages are only
  // touched when written: a new queue does not fault in all its blocks
  // before the first byte arrives (a small file uses one or two).
  unsigned char* data_;
  size_t capacity_;
  uint64_t payload_ = 0;
  long long beginning_ = 0;
  bool flag_ = true;
};

}  // namespace util

#endif  // CORVANE_BUFFER_BUFFER_BLOCK_H_
