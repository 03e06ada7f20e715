// 64 sessions in pairs, and everything that a thread may do to them.
#ifndef TARN_TESTS_RACE_RACE_WORLD_H_
#define TARN_TESTS_RACE_RACE_WORLD_H_

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <vector>

#include "tests/race/race_pair.h"

namespace tarn_test {

class RaceWorld {
 public:
  static constexpr size_t kPairs = 32;

  RaceWorld();
  RaceWorld(const RaceWorld&) = delete;
  RaceWorld& operator=(const RaceWorld&) = delete;

  // One thing, chosen at random, to a session chosen at random. `thread` tells the callers apart.
  void act(uint32_t thread, std::mt19937& random);

  // When nobody acts any more: whether all messages of the pairs that live come through.
  bool settle_everything();
  // Destroys the rest. Whether every handle is bad in the end.
  bool destroy_everything();

  const Verdict& verdict() const { return verdict_; }
  // Messages sent reliably, and heard, by all pairs that ever were.
  uint64_t sent() const;
  uint64_t received() const;
  // Pairs that heard more than was sent to them.
  size_t inconsistent() const;
  size_t pairs() const;

 private:
  class Use;

  RacePair* replace(size_t slot);
  void retire(RacePair* pair, std::mt19937& random);
  void destroy_sessions(RacePair& pair, std::mt19937& random);
  void create_and_destroy_alone();
  void act_on(RacePair& pair, uint32_t thread, std::mt19937& random);
  static void change_settings(std::mt19937& random);
  static void control(RaceEnd& end, std::mt19937& random);

  Verdict verdict_;
  std::array<std::atomic<RacePair*>, kPairs> slots_{};
  // A handle may be used again for a later session. So that nobody acts on a handle that has become
  // another one's, pairs are created while no retired pair has calls under way.
  std::shared_mutex handles_change_;
  mutable std::mutex all_guard_;
  std::vector<std::unique_ptr<RacePair>> all_;  // their callbacks may come late
};

}  // namespace tarn_test

#endif  // TARN_TESTS_RACE_RACE_WORLD_H_
