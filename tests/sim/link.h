// Link: one direction of the network between two ends.
#ifndef TARN_TESTS_SIM_LINK_H_
#define TARN_TESTS_SIM_LINK_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "tests/sim/random.h"
#include "tests/sim/scheduler.h"

namespace tarn_sim {

// What a link does to datagrams. Shares are of the datagrams, each drawn for itself.
struct LinkSettings {
  uint64_t delay_ns = 0;
  uint64_t jitter_ns = 0;  // up to this much more, which reorders
  bool in_order = false;   // unless nothing overtakes what has left before it
  double loss = 0;
  double burst_begin = 0;  // from good to lossy, per datagram
  double burst_end = 1;    // and back
  double duplicate = 0;
  double reorder = 0;  // held back by up to reorder_ns
  uint64_t reorder_ns = 0;
  double truncate = 0;           // cut at a drawn length
  double bad_header = 0;         // a bit of the first byte is turned
  double corrupt = 0;            // a drawn byte is changed
  double feedback_loss = 0;      // of the datagrams that carry acknowledgements alone
  uint64_t rate_bps = 0;         // bottleneck in bits a second; 0 is none
  uint64_t queue_bytes = 65536;  // in front of the bottleneck
  uint64_t up_ns = 0;            // works this long, then
  uint64_t down_ns = 0;          // loses everything for this long, and so on
};

// Takes datagrams and keeps them until they are due. Draws everything from its own generator, as
// much for one datagram as for any other.
class Link {
 public:
  Link(Random random, const LinkSettings& settings) : random_(random), settings_(settings) {}

  void send(uint64_t now, std::string_view datagram, bool feedback_only);
  // The datagram that is due first, if it is due now.
  std::optional<std::string> receive(uint64_t now);
  // Somebody else's datagram, which arrives at once and as it is.
  void inject(uint64_t now, std::string_view datagram) { on_the_way_.emplace(now, datagram); }
  // When the last of those on the way is due; 0 when there are none.
  uint64_t last_due() const { return on_the_way_.empty() ? 0 : on_the_way_.rbegin()->first; }
  // When the next one is due, or kNever.
  uint64_t next_due() const { return on_the_way_.empty() ? kNever : on_the_way_.begin()->first; }

  // From now on nothing is lost or changed; everything takes `delay_ns`, as it does already for
  // what is on the way at most.
  void heal(uint64_t delay_ns);
  void clear() { on_the_way_.clear(); }

  uint64_t datagrams() const { return datagrams_; }
  uint64_t bytes() const { return bytes_; }
  uint64_t lost() const { return lost_; }

 private:
  bool is_lost(uint64_t now, bool feedback_only);
  // When the datagram has passed the bottleneck, or kNever when the queue has no room.
  uint64_t pass_bottleneck(uint64_t now, size_t size);
  void damage(std::string& datagram);
  uint64_t draw_delay();
  // When a datagram that departs then arrives.
  uint64_t draw_arrival(uint64_t departure);

  Random random_;
  LinkSettings settings_;
  std::multimap<uint64_t, std::string> on_the_way_;  // by when they are due
  bool in_burst_ = false;
  uint64_t busy_until_ = 0;
  uint64_t datagrams_ = 0;
  uint64_t bytes_ = 0;
  uint64_t lost_ = 0;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_LINK_H_
