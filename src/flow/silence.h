// Silence: what follows from how long neither end has been heard.
#ifndef TARN_SRC_FLOW_SILENCE_H_
#define TARN_SRC_FLOW_SILENCE_H_

#include <stdint.h>

#include <algorithm>

// What is known, in milliseconds; a plain value.
struct Silence {
  uint32_t keep_alive;    // our silence that is broken; 0: none
  uint32_t peer_timeout;  // the peer's silence that is told; 0: none
  uint32_t since_sent;
  uint32_t since_received;
  bool has_received;
  bool is_told;  // this silence of the peer's has been

  bool is_ours_over() const { return keep_alive != 0 && has_received && since_sent >= keep_alive; }
  bool is_peers_over() const {
    return peer_timeout != 0 && !is_told && since_received >= peer_timeout;
  }
  // When to look for the first time, in ms. 0: not at all.
  uint32_t first_look() const { return is_peers_over() ? 1 : next_look(); }
  // When to look again, after what is over has been dealt with. 0: not at all.
  uint32_t next_look() const {
    const uint32_t ours = rest(keep_alive, since_sent);
    const uint32_t peers = rest(peer_timeout, since_received);
    return ours == 0 || peers == 0 ? std::max(ours, peers) : std::min(ours, peers);
  }

 private:
  static uint32_t rest(uint32_t limit, uint32_t since) {
    return since < limit ? limit - since : limit;
  }
};

#endif  // TARN_SRC_FLOW_SILENCE_H_
