// ControlledEnd: one end of a conversation that uses tarn/control.h, with an account of all of it.
#ifndef TARN_TESTS_FUZZ_SUPPORT_CONTROLLED_END_H_
#define TARN_TESTS_FUZZ_SUPPORT_CONTROLLED_END_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tarn/control.h"

namespace tarn_fuzz {

// Checks inside its callbacks and after its calls that messages come once and in the order in which
// they were taken, that room is what it is said to be, that who is refused is told once, that
// nothing comes while it is paused, and that what leaves is well-formed.
class ControlledEnd {
 public:
  struct Hooks {
    std::function<void(ControlledEnd&, std::string)> datagram;  // one has left
    std::function<void(ControlledEnd&)> callback;               // at the end of every callback
  };

  ControlledEnd(unsigned side, Hooks hooks);
  ControlledEnd(const ControlledEnd&) = delete;
  ControlledEnd& operator=(const ControlledEnd&) = delete;
  void meet(ControlledEnd& peer) { peer_ = &peer; }

  // Any option and any value.
  void set(int option, long long value);
  long long get(TarnOption option) const;
  void set_profile(int profile);
  void try_send(size_t size);
  void send(size_t size);
  void send_unreliable(size_t size);
  void pause(bool on);
  void listen(bool on);
  void input(const std::string& datagram);
  void destroy();

  // Not from inside a callback: counters are what was seen.
  void check_stats() const;
  // All that was taken has been acknowledged.
  void check_rest() const;
  // From now on anything may come from the peer.
  void distrust() { is_trusting_ = false; }

  unsigned side() const { return side_; }
  void* handle() const { return handle_; }
  bool is_destroyed() const { return is_destroyed_; }
  bool is_too_large() const { return is_too_large_; }
  // Whether a message met a full window, so that nothing behind it can be promised.
  bool is_broken() const { return broken_at_ != SIZE_MAX; }
  // Messages that have been taken and have to arrive, and those that have.
  size_t must_arrive() const;
  size_t received() const { return received_; }

 private:
  struct Message {
    size_t size;
    unsigned number;
  };

  std::string bytes_of(const Message& message) const;
  size_t begin(size_t size);
  void refuse(unsigned number);
  bool is_ended(int result) const;
  void check_output(const std::string& datagram);
  void check_delivery(const std::string& bytes);
  void count_input(const std::string& datagram);

  static int on_output(char* data, int len, void* user);
  static int on_reliable(char* data, int len, void* user);
  static int on_unreliable(char* data, int len, void* user);
  static int on_error(TarnError code, void* user);
  static void on_writable(void* session, void* user);

  const unsigned side_;
  const Hooks hooks_;
  ControlledEnd* peer_ = nullptr;
  void* handle_;
  bool is_destroyed_ = false;
  bool is_trusting_ = true;
  bool is_paused_ = false;
  bool is_telling_ = false;
  bool is_listening_ = true;
  bool is_too_large_ = false;
  bool has_options_ = false;
  bool is_strict_ = false;  // or has been
  uint64_t refusals_ = 0;
  uint64_t tellings_ = 0;
  bool is_waiting_ = false;
  unsigned calls_ = 0;
  int inputs_ = 0;                 // under way
  std::vector<unsigned> sends_;    // tarn_send_reliable() under way, by number
  std::set<unsigned> overflowed_;  // of these
  std::set<unsigned> emitted_;     // numbers of segments
  std::vector<Message> sent_;      // taken, in order
  size_t broken_at_ = SIZE_MAX;    // index in sent_
  size_t received_ = 0;
  TarnStats seen_{};
};

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_CONTROLLED_END_H_
