// Engine: two sessions wired output to input.
#ifndef TARN_BENCH_ENGINE_H_
#define TARN_BENCH_ENGINE_H_

#include <stddef.h>

#include <array>
#include <vector>

#include "bench/message_bench.h"
#include "bench/settings.h"

namespace bench {

// Everything happens on the calling thread. What the worker emits, re-sends of messages whose
// acknowledgement a descheduled thread still has to give, is dropped: one thread feeds a session.
class Engine {
 public:
  explicit Engine(const Settings& settings = traffic_settings());
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // The first end sends and the second answers with what acknowledges it: the answer carries the
  // una, and its own acknowledgement rides on the next message.
  void exchange(std::vector<char>& message);

  // False also when a message met a full window, that is when acknowledgements did not come.
  bool has_delivered(long messages, size_t size) const {
    return received_.is(messages, size) && errors_ == 0;
  }

  void* end(size_t i) const { return ends_[i]; }

 private:
  static int feed(char* data, int len, void* peer);
  static int count(char* data, int len, void* received);
  static int count_error(TarnError code, void* errors);

  std::array<void*, 2> ends_ = {};
  Received received_;
  long errors_ = 0;
};

}  // namespace bench

#endif  // TARN_BENCH_ENGINE_H_
