// tarn_check_packet and tarn_read_packet_conv, asked about bytes.
#ifndef TARN_TESTS_SUPPORT_PACKET_INSPECTION_H_
#define TARN_TESTS_SUPPORT_PACKET_INSPECTION_H_

#include "tests/support/session_fixture.h"

namespace tarn_test {

constexpr unsigned kNotOurs = 0xFFFFFFFF;

inline int check(Bytes bytes) {
  // From a buffer of exactly this size, for the address sanitizer.
  bytes.shrink_to_fit();
  return tarn_check_packet(reinterpret_cast<char*>(bytes.data()), static_cast<int>(bytes.size()));
}

inline unsigned read_conv(Bytes bytes) {
  bytes.shrink_to_fit();
  return tarn_read_packet_conv(reinterpret_cast<char*>(bytes.data()),
                               static_cast<int>(bytes.size()));
}

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_PACKET_INSPECTION_H_
