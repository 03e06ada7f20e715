// DatagramReader: takes a datagram apart where it lies.
#ifndef TARN_SRC_DATAGRAM_READER_H_
#define TARN_SRC_DATAGRAM_READER_H_

#include <stddef.h>
#include <stdint.h>

#include "src/tarn_log.h"
#include "src/wire_format.h"

// A cursor over the caller's bytes, which have to outlive it. Nothing is copied. What cannot be
// read is logged; rest() then begins behind what has been read of it. One thread.
class DatagramReader {
 public:
  // A segment in its datagram.
  struct Segment {
    unsigned char type = 0;
    unsigned char flag = 0;
    char* body = nullptr;
    size_t size = 0;
  };

  DatagramReader(char* datagram, size_t size) : at_(datagram), size_(size) {}

  // Bytes not read yet.
  size_t rest() const { return size_; }
  bool has_segment() const { return size_ >= wire::kSegHeadSize; }

  bool read_head(char& magic, unsigned char& version) {
    if (size_ < wire::kHeaderSize) {
      TARN_LOG_VERBOSE("error tarn header len %lu", static_cast<unsigned long>(size_));
      return false;
    }
    magic = *take(1);
    if (magic != wire::kMagic && magic != wire::kOtherMagic) {
      TARN_LOG_VERBOSE("error magic %c", magic);
      return false;
    }
    version = static_cast<unsigned char>(*take(1));
    // Reported only, so that packets of a later version still flow.
    if (version != wire::kVersion) TARN_LOG_WARN("not match version %u", version);
    return true;
  }

  bool read_segment(Segment& seg) {
    const size_t size = size_;
    if (size < 2) {
      TARN_LOG_WARN("error tarn segment len %lu", static_cast<unsigned long>(size));
      return false;
    }
    const auto head = static_cast<unsigned char>(*take(1));
    seg.type = head >> wire::kTypeShift;
    seg.flag = head & wire::kFlagMask;
    if (!is_known(seg.type)) {
      TARN_LOG_WARN("error segment type %u", seg.type);
      return false;
    }
    if (size < wire::kSegHeadSize) {
      TARN_LOG_WARN("error tarn segment len %lu", static_cast<unsigned long>(size));
      return false;
    }
    const unsigned short length = wire::get_uint16(take(sizeof length));
    if (size_ < length) {
      TARN_LOG_WARN("error segment len %u", length);
      return false;
    }
    seg.size = length;
    seg.body = take(length);
    return true;
  }

  // The first conversation id of a datagram of `size` bytes, 0 if it has none. Logs nothing.
  static uint32_t find_conv(const char* datagram, size_t size) {
    const bool is_ours = size >= wire::kHeaderSize &&
                         (datagram[0] == wire::kMagic || datagram[0] == wire::kOtherMagic);
    size_t at = is_ours ? wire::kHeaderSize : size;
    while (size - at >= wire::kSegHeadSize) {
      const auto type = static_cast<unsigned char>(datagram[at]) >> wire::kTypeShift;
      const size_t length = wire::get_uint16(datagram + at + wire::kSegLengthOffset);
      at += wire::kSegHeadSize;
      if (!is_known(type) || length > size - at) break;
      if (type == wire::kConv && length >= wire::kConvBodySize) {
        return wire::get_uint32(datagram + at);
      }
      at += length;
    }
    return 0;
  }

 private:
  static bool is_known(unsigned char type) {
    return type <= wire::kBye || type == wire::kConv;  // kHeartbeat is refused
  }

  char* take(size_t count) {
    char* const taken = at_;
    at_ += count;
    size_ -= count;
    return taken;
  }

  char* at_;
  size_t size_;
};

#endif  // TARN_SRC_DATAGRAM_READER_H_
