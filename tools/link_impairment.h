#ifndef TARN_TOOLS_LINK_IMPAIRMENT_H_
#define TARN_TOOLS_LINK_IMPAIRMENT_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>

namespace tarn_tool {

using Microseconds = std::chrono::microseconds;

// What a link does to the datagrams that cross it in one direction.
struct LinkSettings {
  double loss = 0;       // probability that a datagram is lost
  double duplicate = 0;  // probability that one arrives twice
  double reorder = 0;    // probability that one is held back, so that later ones overtake it
  Microseconds delay{0};
  Microseconds jitter{0};             // the delay varies by up to this much, without reordering
  std::optional<std::uint64_t> rate;  // bits per second; nothing is no limit
  std::optional<std::uint64_t> queue_bytes;  // that wait for the rate; nothing is the default
};

// Bytes that may wait for their turn on a link of `settings`: 100 ms of its rate, at least 64 KiB,
// unless the settings say otherwise.
std::uint64_t queue_limit(const LinkSettings& settings);

// One direction of one impaired link. A pure function of its settings, its seed and the datagrams
// that it was shown: it owns no clock and no bytes. What is lost, duplicated and reordered depends
// on the datagrams' count alone, not on when they come.
class LinkImpairment {
 public:
  enum class Fate { kForwarded, kLost, kQueueFull };
  struct Verdict {
    Fate fate = Fate::kForwarded;
    bool duplicated = false;
    bool reordered = false;
    Microseconds due{0};  // when it arrives, both times if it was duplicated
  };

  // Links of one seed differ by `peer` and `direction`.
  LinkImpairment(const LinkSettings& settings, std::uint64_t seed, std::uint32_t peer,
                 std::uint32_t direction);

  // A datagram of `bytes` enters the link at `now`, which never goes back.
  Verdict pass(Microseconds now, std::size_t bytes);

 private:
  // Uniform in [0, 1).
  double draw();
  // When the last bit of `bytes` has left the queue; nothing when the queue has no room.
  std::optional<Microseconds> depart(Microseconds now, std::size_t bytes);

  const LinkSettings settings_;
  std::mt19937_64 random_;
  double busy_until_us_ = 0;  // not whole microseconds: a fast link sends many in one
  Microseconds last_due_{0};  // of those that keep their order
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_LINK_IMPAIRMENT_H_
