// Address texts read a second time, by splitting where the library goes letter by letter.
#ifndef TARN_TESTS_FUZZ_SUPPORT_PLAIN_ADDR_H_
#define TARN_TESTS_FUZZ_SUPPORT_PLAIN_ADDR_H_

#include <string>

namespace tarn_fuzz {

// 4 or 16 bytes in network order, or nothing for a text that is no address. Leading zeros are taken
// in any number, and a "::" may stand for no group at all.
std::string plain_ipv4(const std::string& text);
std::string plain_ipv6(const std::string& text);

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_PLAIN_ADDR_H_
