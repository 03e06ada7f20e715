#include "bench/engine.h"

#include "bench/worker.h"
#include "tarn/tarn.h"

namespace bench {

Engine::Engine(const Settings& settings) {
  settings.apply();
  tarn_init();
  for (void*& end : ends_) end = tarn_create();
  for (size_t i = 0; i < ends_.size(); ++i) {
    tarn_set_output_callback(ends_[i], feed, ends_[1 - i]);
    tarn_set_recv_reliable_callback(ends_[i], count, &received_);
    tarn_set_recv_unreliable_callback(ends_[i], count, &received_);
    tarn_set_error_callback(ends_[i], count_error, &errors_);
    tarn_set_conv(ends_[i], 1);
  }
}

Engine::~Engine() {
  for (void* end : ends_) tarn_destroy(end);
  wait_for_worker();
}

void Engine::exchange(std::vector<char>& message) {
  for (void* end : ends_) {
    tarn_send_reliable(end, message.data(), static_cast<int>(message.size()));
  }
}

int Engine::feed(char* data, int len, void* peer) {
  if (!on_worker()) tarn_input(peer, data, len);
  return 0;
}

int Engine::count(char*, int len, void* received) {
  static_cast<Received*>(received)->add(static_cast<size_t>(len));
  return 0;
}

int Engine::count_error(TarnError, void* errors) {
  ++*static_cast<long*>(errors);
  return 0;
}

}  // namespace bench
