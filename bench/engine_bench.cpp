// CPU time of one reliable message, both ends in one process and no sockets: send, frame, keep,
// parse, deliver in order, acknowledge, release.
#include <benchmark/benchmark.h>

#include <vector>

#include "tarn/tarn.h"

namespace {

int feed_peer(char* data, int len, void* peer) {
  tarn_input(peer, data, len);
  return 0;
}

int count_message(char*, int, void* count) {
  ++*static_cast<long*>(count);
  return 0;
}

// Two sessions wired output to input on the calling thread.
class Conversation {
 public:
  Conversation() {
    // Long enough that the cycle adds nothing to what is measured.
    tarn_config_rtx_timeout(1000);
    tarn_init();
    for (void*& end : ends_) end = tarn_create();
    tarn_set_output_callback(ends_[0], feed_peer, ends_[1]);
    tarn_set_output_callback(ends_[1], feed_peer, ends_[0]);
    for (void* end : ends_) tarn_set_recv_reliable_callback(end, count_message, &delivered_);
    tarn_set_conv(ends_[0], 1);
    tarn_set_conv(ends_[1], 1);
  }
  ~Conversation() {
    for (void* end : ends_) tarn_destroy(end);
  }

  // The first end sends and the second answers with what acknowledges it: the answer carries the
  // una, and its own acknowledgement rides on the next message.
  void exchange(std::vector<char>& message) {
    tarn_send_reliable(ends_[0], message.data(), static_cast<int>(message.size()));
    tarn_send_reliable(ends_[1], message.data(), static_cast<int>(message.size()));
  }

  long delivered() const { return delivered_; }

 private:
  void* ends_[2] = {};
  long delivered_ = 0;
};

void ReliableMessage(benchmark::State& state) {
  Conversation conversation;
  std::vector<char> message(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) conversation.exchange(message);
  const long sent = 2 * static_cast<long>(state.iterations());
  if (conversation.delivered() != sent) state.SkipWithError("messages were lost");
  state.SetItemsProcessed(sent);
  state.counters["per_message"] = benchmark::Counter(
      static_cast<double>(sent), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(ReliableMessage)->Arg(64)->Arg(1024)->Arg(8192);

}  // namespace
