// TcpTalk: an application that talks to itself over TCP handles of the library.
#ifndef TARN_TESTS_SIM_TCP_TALK_H_
#define TARN_TESTS_SIM_TCP_TALK_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/sim/random.h"
#include "tests/sim/world.h"

namespace tarn_sim {

// One connection through its life: a listener, a handle that connects to it and the one that comes
// of that. Both ends write at once, as much as is taken, and each byte has to come out at the other
// end in its place; the end of the stream has to be reported once, and nothing else but this.
class TcpTalk {
 public:
  TcpTalk(World& world, std::string name, Random random);
  TcpTalk(const TcpTalk&) = delete;
  TcpTalk& operator=(const TcpTalk&) = delete;

  // Returns when everything has arrived and nothing is open any more.
  void run();

 private:
  struct End {
    TcpTalk& talk;
    const char* name;
    std::string out;  // what it writes
    Random random;
    void* io = nullptr;
    size_t written = 0;
    size_t consumed = 0;
    size_t seen = 0;  // bytes of the other end's that have been in the buffer
    bool writeable = false;
    bool ended = false;
  };

  static void on_peer(void* io, void* self);
  static void on_readable(void* end);
  static void on_writeable(void* end);
  static void on_error(int error, void* end);
  static void on_refusal(int error, void* self);

  void connect();
  void be_refused();
  void write_all(End& end);
  void wait_until_writeable(End& end);
  void read_some(End& end);
  void read_rest(const End& end);
  size_t look(const End& end);
  void hang_up();
  End& other(const End& end) { return &end == &client_ ? server_ : client_; }
  void check_locks(const char* what) const;
  // Until then, within a bound.
  template <typename Condition>
  void wait_for(const char* what, Condition condition);

  World& world_;
  const std::string name_;
  End client_;
  End server_;
  uint16_t port_ = 0;
  void* listener_ = nullptr;
  void* refused_ = nullptr;
  uint64_t give_up_at_ = 0;  // ns
  bool hung_up_ = false;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_TCP_TALK_H_
