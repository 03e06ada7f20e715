// Random: every choice of a simulated run, drawn from one seed.
#ifndef TARN_TESTS_SIM_RANDOM_H_
#define TARN_TESTS_SIM_RANDOM_H_

#include <cstdint>
#include <initializer_list>
#include <random>

namespace tarn_sim {

// A generator with the few draws that the simulator needs, written out because the standard's
// distributions differ from one library to the next.
class Random {
 public:
  explicit Random(uint64_t seed) : engine_(seed) {}

  // A generator of its own for one part of a run, so that what one part draws does not shift what
  // another one gets.
  Random fork() { return Random(engine_()); }

  uint64_t bits() { return engine_(); }
  // From `low` to `high`, both included. The bias of the remainder does not matter here.
  uint64_t between(uint64_t low, uint64_t high) { return low + engine_() % (high - low + 1); }
  // In [0, 1).
  double share() { return static_cast<double>(engine_() >> 11) * 0x1p-53; }
  bool chance(double probability) { return probability > 0 && share() < probability; }

  template <typename T>
  T pick(std::initializer_list<T> choices) {
    return choices.begin()[between(0, choices.size() - 1)];
  }

 private:
  std::mt19937_64 engine_;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_RANDOM_H_
