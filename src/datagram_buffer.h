// DatagramBuffer: room for one datagram.
#ifndef TARN_SRC_DATAGRAM_BUFFER_H_
#define TARN_SRC_DATAGRAM_BUFFER_H_

#include <stddef.h>

#include <memory>

// `size` bytes, not initialised, aligned for anything; on the stack for datagrams of usual size.
// Lives for one call.
class DatagramBuffer {
 public:
  // Bytes that need no allocation.
  static constexpr size_t kOnStack = 2048;

  explicit DatagramBuffer(size_t size) : heap_(size > sizeof stack_ ? new char[size] : nullptr) {}
  DatagramBuffer(const DatagramBuffer&) = delete;
  DatagramBuffer& operator=(const DatagramBuffer&) = delete;

  char* data() { return heap_ ? heap_.get() : stack_; }

 private:
  alignas(max_align_t) char stack_[kOnStack];
  const std::unique_ptr<char[]> heap_;
};

#endif  // TARN_SRC_DATAGRAM_BUFFER_H_
