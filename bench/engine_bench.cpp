// Messages through two sessions on one thread, without sockets.
#include <benchmark/benchmark.h>

#include <string.h>

#include <vector>

#include "bench/datagram_queue.h"
#include "bench/engine.h"
#include "bench/message_bench.h"
#include "bench/worker.h"
#include "tarn/tarn.h"

namespace bench {
namespace {

BENCHMARK_TEMPLATE(Message, Engine)->Apply(three_sizes);

Settings wide_settings() {
  Settings settings = traffic_settings();
  settings.window = 256;
  return settings;
}

// Has room for messages of many fragments.
class WideEngine : public Engine {
 public:
  WideEngine() : Engine(wide_settings()) {}
};
BENCHMARK_TEMPLATE(Message, WideEngine)->Arg(65536)->Apply(repeated);

Settings widest_settings() {
  Settings settings = traffic_settings();
  settings.window = 1024;
  return settings;
}

// Time of one message of several that are acknowledged together, by an answer that is included.
void MessageUnderWay(benchmark::State& state) {
  Engine engine(widest_settings());
  std::vector<char> message(static_cast<size_t>(state.range(0)), 'x');
  const long under_way = state.range(1);
  long delivered = 0;
  while (state.KeepRunningBatch(under_way)) {
    for (long i = 0; i < under_way; ++i) {
      tarn_send_reliable(engine.end(0), message.data(), static_cast<int>(message.size()));
    }
    tarn_send_reliable(engine.end(1), message.data(), static_cast<int>(message.size()));
    delivered += under_way + 1;
  }
  if (!engine.has_delivered(delivered, message.size())) state.SkipWithError("messages were lost");
}
BENCHMARK(MessageUnderWay)->Args({8192, 4})->Args({8192, 16})->Args({8192, 32})->Apply(repeated);

void UnreliableMessage(benchmark::State& state) {
  Engine engine;
  std::vector<char> message(static_cast<size_t>(state.range(0)), 'x');
  long sent = 0;
  for (auto _ : state) {
    tarn_send_unreliable(engine.end(0), message.data(), static_cast<int>(message.size()));
    ++sent;
  }
  if (!engine.has_delivered(sent, message.size())) state.SkipWithError("messages were lost");
}
BENCHMARK(UnreliableMessage)->Arg(64)->Arg(1024)->Apply(repeated);

void UnreliableMessageNoCopy(benchmark::State& state) {
  constexpr size_t kPrefix = 12;  // bytes for the library in front of the message
  Engine engine;
  const auto size = static_cast<size_t>(state.range(0));
  std::vector<char> buffer(kPrefix + size, 'x');
  long sent = 0;
  for (auto _ : state) {
    tarn_send_unreliable_nocp(engine.end(0), buffer.data(), static_cast<int>(size));
    ++sent;
  }
  if (!engine.has_delivered(sent, size)) state.SkipWithError("messages were lost");
}
BENCHMARK(UnreliableMessageNoCopy)->Arg(64)->Arg(1024)->Apply(repeated);

// A window's datagrams, each a numbered message, that arrive the wrong way round.
class ReversingEngine : public Engine {
 public:
  ReversingEngine() {
    tarn_set_output_callback(end(0), hold, &held_);
    tarn_set_recv_reliable_callback(end(1), check, this);
  }

  // Ends with an answer, which acknowledges all of them.
  void exchange(long messages, size_t size) {
    message_.resize(size);
    for (long i = 0; i < messages; ++i, ++sent_) {
      memcpy(message_.data(), &sent_, sizeof sent_);
      tarn_send_reliable(end(0), message_.data(), static_cast<int>(size));
    }
    while (!held_.empty()) {
      std::vector<char>& datagram = held_.pop_newest();
      tarn_input(end(1), datagram.data(), static_cast<int>(datagram.size()));
    }
    tarn_send_reliable(end(1), message_.data(), static_cast<int>(size));
    ++answers_;
  }

  bool has_delivered(size_t size) const {
    return in_order_ && arrived_ == sent_ && Engine::has_delivered(answers_, size);
  }

 private:
  // The worker may be here at the same time: what it re-sends is dropped.
  static int hold(char* data, int len, void* held) {
    if (on_worker()) return 0;
    const auto size = static_cast<size_t>(len);
    memcpy(static_cast<DatagramQueue*>(held)->push(size), data, size);
    return 0;
  }

  static int check(char* data, int, void* engine) {
    auto& self = *static_cast<ReversingEngine*>(engine);
    long number = 0;
    memcpy(&number, data, sizeof number);
    self.in_order_ = self.in_order_ && number == self.arrived_;
    ++self.arrived_;
    return 0;
  }

  DatagramQueue held_;
  std::vector<char> message_;
  long sent_ = 0;
  long arrived_ = 0;
  long answers_ = 0;
  bool in_order_ = true;
};

// Time of one message of 32 that arrive in reverse order. The answer to all of them is included.
void ReversedMessage(benchmark::State& state) {
  constexpr long kWindow = 32;
  ReversingEngine engine;
  const auto size = static_cast<size_t>(state.range(0));
  while (state.KeepRunningBatch(kWindow)) engine.exchange(kWindow, size);
  if (!engine.has_delivered(size)) state.SkipWithError("messages were lost");
}
BENCHMARK(ReversedMessage)->Arg(64)->Arg(1024)->Apply(repeated);

}  // namespace
}  // namespace bench
