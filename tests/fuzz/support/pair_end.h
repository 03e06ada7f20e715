// PairEnd: one end of a conversation between two sessions, with an account of what it has sent and
// received.
#ifndef TARN_TESTS_FUZZ_SUPPORT_PAIR_END_H_
#define TARN_TESTS_FUZZ_SUPPORT_PAIR_END_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "tarn/tarn.h"
#include "tests/fuzz/support/library_run.h"

namespace tarn_fuzz {

// Checks inside its callbacks that every reliable message of the peer comes once, in order and byte
// for byte, that errors are raised where they may be, that what leaves is well-formed, and that
// nothing is called after the end.
class PairEnd {
 public:
  struct Hooks {
    std::function<void(PairEnd&, std::string)> datagram;  // one has left
    std::function<void(PairEnd&)> callback;               // at the end of every callback
  };

  // Both ends count reliable segments from `first_seq`, as if so many had been exchanged before.
  PairEnd(unsigned side, const LibraryRun& run, unsigned first_seq, unsigned mtu, Hooks hooks);
  PairEnd(const PairEnd&) = delete;
  PairEnd& operator=(const PairEnd&) = delete;
  void meet(PairEnd& peer) { peer_ = &peer; }

  // Reliable segments that a message takes.
  size_t segments_of(size_t size) const;

  void send_reliable(size_t size);
  void send_unreliable(size_t size);
  void send_unreliable_nocp(size_t size);
  void input(const std::string& datagram);
  void set_callbacks();
  void destroy();

  // From now on anything may come from the peer.
  void distrust() { is_trusting_ = false; }

  unsigned side() const { return side_; }
  void* handle() const { return handle_; }
  bool is_destroyed() const { return is_destroyed_; }
  // Number of the last segment received in order.
  unsigned last_received() const;
  // Messages that must reach the peer in the end; fewer than were sent if one of them cannot.
  size_t must_arrive() const { return first_lost_ < sent_.size() ? first_lost_ : sent_.size(); }
  size_t received() const { return received_; }
  bool is_all_deliverable() const { return first_lost_ >= sent_.size(); }
  // Datagrams with reliable segments that have left.
  size_t reliable_datagrams() const { return reliable_datagrams_; }

 private:
  std::string message(unsigned index, size_t size) const;
  bool sends_nothing(size_t size) const;
  void check_output(const std::string& datagram);
  void check_feedback(size_t feedback, size_t payload) const;
  void check_reliable(const std::string& bytes);
  void check_error(TarnError code);

  static int on_output(char* data, int len, void* user);
  static int on_reliable(char* data, int len, void* user);
  static int on_unreliable(char* data, int len, void* user);
  static int on_error(TarnError code, void* user);

  const unsigned side_;
  const LibraryRun& run_;
  const size_t mtu_;
  const Hooks hooks_;
  PairEnd* peer_ = nullptr;
  void* handle_;
  bool is_destroyed_ = false;
  bool is_trusting_ = true;
  uint32_t last_active_;  // tick

  std::vector<size_t> sent_;       // sizes of the reliable messages
  std::vector<size_t> sends_;      // calls that are under way, as indexes of messages
  size_t first_lost_ = SIZE_MAX;   // first message that met a full window, or is empty
  size_t first_empty_ = SIZE_MAX;  // first empty one: nothing can be delivered from there on
  size_t received_ = 0;
  std::unordered_set<std::string> sent_unreliable_;
  size_t reliable_datagrams_ = 0;
  int inputs_ = 0;  // calls under way
};

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_PAIR_END_H_
