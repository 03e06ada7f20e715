// Message: the benchmark that Tarn, the floor below it and other transports share.
#ifndef TARN_BENCH_MESSAGE_BENCH_H_
#define TARN_BENCH_MESSAGE_BENCH_H_

#include <benchmark/benchmark.h>

#include <stddef.h>

#include <vector>

#include "bench/repetitions.h"

namespace bench {

// What a receiver counts.
struct Received {
  long messages = 0;
  size_t bytes = 0;

  void add(size_t size) {
    ++messages;
    bytes += size;
  }
  bool is(long sent, size_t size) const {
    return messages == sent && bytes == static_cast<size_t>(sent) * size;
  }
};

// Time of one reliable message, both ends on the calling thread and no sockets: sent, framed, kept,
// parsed, delivered in order, acknowledged, released.
//
// A Conversation has exchange(message), by which each end sends the message to the other one and
// takes what that has sent, and has_delivered(messages, size), which holds when that many of that
// size have arrived, every one whole, and nothing went wrong.
template <typename Conversation>
void Message(benchmark::State& state) {
  constexpr long kMessages = 2;  // in an exchange
  Conversation conversation;
  std::vector<char> message(static_cast<size_t>(state.range(0)), 'x');
  long sent = 0;
  while (state.KeepRunningBatch(kMessages)) {
    conversation.exchange(message);
    sent += kMessages;
  }
  if (!conversation.has_delivered(sent, message.size())) state.SkipWithError("messages were lost");
  state.SetItemsProcessed(sent);
}

inline void three_sizes(benchmark::internal::Benchmark* benchmark) {
  repeated(benchmark->Arg(64)->Arg(1024)->Arg(8192));
}

}  // namespace bench

#endif  // TARN_BENCH_MESSAGE_BENCH_H_
