// Sessions for the paths, and the callbacks that join them.
#ifndef TARN_TESTS_INSTRUCTIONS_ENDS_H_
#define TARN_TESTS_INSTRUCTIONS_ENDS_H_

#include <cstddef>
#include <vector>

#include "tarn/tarn.h"

namespace instructions {

int discard(char* data, int len, void* user);
// `user` is a long.
int count_call(char* data, int len, void* user);
int count_error(TarnError code, void* user);

// A session with conversation id 1 whose datagrams go nowhere, for as long as the object lives.
class End {
 public:
  End();
  ~End() { tarn_destroy(handle_); }
  End(const End&) = delete;
  End& operator=(const End&) = delete;

  void* handle() const { return handle_; }
  void send_reliable(std::vector<char>& message) const;
  // An error if there is no room.
  void try_send_reliable(std::vector<char>& message) const;
  void send_unreliable(std::vector<char>& message) const;
  void input(std::vector<char>& datagram) const;

  // Messages of both kinds that have been delivered, and errors.
  long received() const { return received_; }
  long errors() const { return errors_; }

 private:
  void* handle_;
  long received_ = 0;
  mutable long errors_ = 0;
};

// Feeds what the first emits to the second.
void join(const End& from, const End& to);

// Two ends, each of which feeds the other.
struct Pair {
  Pair();

  End left;
  End right;
};

// An end that keeps its datagrams. Nobody acknowledges them: it sends on with a full window.
class Recorder {
 public:
  Recorder();

  // The datagrams that `count` reliable messages of `size` bytes make, in order.
  std::vector<std::vector<char>>& record(int count, size_t size);

 private:
  static int keep(char* data, int len, void* self);

  End end_;
  std::vector<std::vector<char>> datagrams_;
};

}  // namespace instructions

#endif  // TARN_TESTS_INSTRUCTIONS_ENDS_H_
