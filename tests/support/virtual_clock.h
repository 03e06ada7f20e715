// The wall clock of a test program.
//
// Linking this file puts the program's own gettimeofday in front of the system's, for the library
// too. It begins at the same time in every run, whatever the date, and runs with the real time until
// a test stops the clock; from then on time moves only when the test moves it.
#ifndef TARN_TESTS_SUPPORT_VIRTUAL_CLOCK_H_
#define TARN_TESTS_SUPPORT_VIRTUAL_CLOCK_H_

#include <cstdint>

namespace tarn_test {

class VirtualClock {
 public:
  // Stops the clock at the given millisecond; it runs on from where it is when the object goes.
  explicit VirtualClock(uint64_t ms = 1'000'000);
  ~VirtualClock();
  VirtualClock(const VirtualClock&) = delete;
  VirtualClock& operator=(const VirtualClock&) = delete;

  void set_ms(uint64_t ms);
  void set_us(uint64_t us);
  void advance_ms(int64_t ms);
  uint64_t now_ms() const;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_VIRTUAL_CLOCK_H_
