// The wire format read a second time, as plainly as can be and with no code of the library.
#ifndef TARN_TESTS_FUZZ_SUPPORT_PLAIN_DECODER_H_
#define TARN_TESTS_FUZZ_SUPPORT_PLAIN_DECODER_H_

#include <stdint.h>

#include <string>
#include <vector>

namespace tarn_fuzz {

struct PlainSegment {
  unsigned type = 0;
  unsigned flag = 0;
  std::string body;
};

struct PlainDatagram {
  bool has_header = false;
  std::vector<PlainSegment> segments;  // up to the first bad one
  bool is_cut_off = false;             // a bad one follows them
};

PlainDatagram decode(const std::string& bytes);

// Big-endian; reads at `at`, which the caller has checked.
unsigned plain_uint16(const std::string& bytes, size_t at);

// What the two calls that look at a datagram have to answer.
int expected_check(const std::string& bytes);
uint32_t expected_conv(const std::string& bytes);

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_PLAIN_DECODER_H_
