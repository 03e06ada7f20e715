// Two sessions that talk to each other, through memory or over loopback UDP, and what they have
// heard so far.
#ifndef TARN_TESTS_RACE_RACE_PAIR_H_
#define TARN_TESTS_RACE_RACE_PAIR_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "tarn/control.h"

namespace tarn_test {

constexpr uint32_t kRaceThreads = 8;

// What went wrong first, and how often; any thread.
class Verdict {
 public:
  void wrong(const std::string& what);
  int count() const { return count_; }
  std::string first() const;

 private:
  std::atomic<int> count_{0};
  mutable std::mutex guard_;
  std::string first_;
};

class RacePair;

// One end. The callbacks' `user` is one of its two aliases, each of which goes with callbacks of
// its own: a callback with the other's alias shows a torn pair.
class RaceEnd {
 public:
  RaceEnd(RacePair& pair, uint32_t index) : pair_(pair), index_(index) {
    aliases_[0] = {this, 0};
    aliases_[1] = {this, 1};
  }
  RaceEnd(const RaceEnd&) = delete;
  RaceEnd& operator=(const RaceEnd&) = delete;

  void create();
  // Sets all callbacks to those of one alias. An attached end keeps the socket's output callback.
  void set_callbacks(size_t alias);
  void send_reliable(uint32_t thread, size_t size);
  void send_unreliable(uint32_t thread, size_t size, bool in_place);
  // Gives the session some of what waits for it; unless somebody else is at it, since a session
  // may be fed by one thread at a time only.
  void feed();

  // Of a pair under control.

  void take_control();
  void pause(bool on) { tarn_pause_receive(handle_, on ? 1 : 0); }
  // Changes an option that costs no message.
  void change_option(unsigned number);
  // Counters hold together, whatever is under way.
  void look_at_stats();

  void attach(int fd);
  void destroy_io();

  void* handle() const { return handle_; }
  uint64_t sent() const { return sent_; }
  uint64_t received() const { return received_; }

 private:
  struct Alias {
    RaceEnd* end;
    size_t index;
  };
  struct Functions {
    TarnDataCallback output;
    TarnDataCallback reliable;
    TarnDataCallback unreliable;
    TarnErrorCallback error;
  };
  template <size_t alias>
  static Functions functions();
  template <size_t alias>
  static RaceEnd* own(void* user);
  static void on_writable(void* session, void* user);
  bool take(const std::vector<char>& message);

  RaceEnd& other() const;
  void put(const char* data, size_t size);
  void hear(const char* data, size_t size, bool reliable);

  RacePair& pair_;
  const uint32_t index_;
  Alias aliases_[2];
  void* handle_ = nullptr;
  void* io_ = nullptr;
  std::atomic<uint64_t> sent_{0};
  std::atomic<uint64_t> received_{0};
  std::atomic<uint64_t> tries_{0};
  std::atomic<uint64_t> taken_{0};  // of these
  std::atomic<uint64_t> told_{0};
  // Numbers of the next message, by sending thread; the first is each thread's own.
  std::array<uint32_t, kRaceThreads> next_sent_{};
  std::mutex guard_;
  std::array<uint32_t, kRaceThreads> next_heard_{};
  std::deque<std::vector<char>> inbox_;
  std::mutex feeding_;
};

class RacePair {
 public:
  // The sessions do not exist before create().
  RacePair(uint32_t number, bool over_udp, Verdict& verdict)
      : number_(number), over_udp_(over_udp), verdict_(verdict) {}
  // Every other one of either kind.
  bool is_controlled() const { return number_ / 2 % 2 != 0; }
  RacePair(const RacePair&) = delete;
  RacePair& operator=(const RacePair&) = delete;

  void create();
  // Wires the ends, after create().
  void connect();
  // Closes the sockets. What comes through memory afterwards goes nowhere.
  void disconnect();
  bool everything_arrived() const;

  RaceEnd& end(size_t index) { return index == 0 ? first_ : second_; }
  uint32_t number() const { return number_; }
  bool is_over_udp() const { return over_udp_; }
  bool is_connected() const { return connected_; }
  Verdict& verdict() { return verdict_; }

  // Calls under way on the pair's handles.
  std::atomic<int> users{0};

 private:
  const uint32_t number_;
  const bool over_udp_;
  Verdict& verdict_;
  std::atomic<bool> connected_{false};
  RaceEnd first_{*this, 0};
  RaceEnd second_{*this, 1};
};

}  // namespace tarn_test

#endif  // TARN_TESTS_RACE_RACE_PAIR_H_
