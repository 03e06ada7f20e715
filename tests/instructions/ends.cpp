#include "tests/instructions/ends.h"

#include "tarn/control.h"

namespace instructions {

namespace {

constexpr unsigned int kConv = 1;

int feed(char* data, int len, void* session) {
  tarn_input(session, data, len);
  return 0;
}

}  // namespace

int discard(char*, int, void*) { return 0; }

int count_call(char*, int, void* user) {
  ++*static_cast<long*>(user);
  return 0;
}

int count_error(TarnError, void* user) {
  ++*static_cast<long*>(user);
  return 0;
}

End::End() : handle_(tarn_create()) {
  tarn_set_output_callback(handle_, discard, nullptr);
  tarn_set_recv_reliable_callback(handle_, count_call, &received_);
  tarn_set_recv_unreliable_callback(handle_, count_call, &received_);
  tarn_set_error_callback(handle_, count_error, &errors_);
  tarn_set_conv(handle_, kConv);
}

void End::send_reliable(std::vector<char>& message) const {
  tarn_send_reliable(handle_, message.data(), static_cast<int>(message.size()));
}

void End::try_send_reliable(std::vector<char>& message) const {
  if (tarn_try_send_reliable(handle_, message.data(), message.size()) != 0) ++errors_;
}

void End::send_unreliable(std::vector<char>& message) const {
  tarn_send_unreliable(handle_, message.data(), static_cast<int>(message.size()));
}

void End::input(std::vector<char>& datagram) const {
  tarn_input(handle_, datagram.data(), static_cast<int>(datagram.size()));
}

void join(const End& from, const End& to) {
  tarn_set_output_callback(from.handle(), feed, to.handle());
}

Pair::Pair() {
  join(left, right);
  join(right, left);
}

Recorder::Recorder() { tarn_set_output_callback(end_.handle(), keep, this); }

std::vector<std::vector<char>>& Recorder::record(int count, size_t size) {
  datagrams_.clear();
  std::vector<char> message(size, 'x');
  for (int i = 0; i < count; ++i) end_.send_reliable(message);
  return datagrams_;
}

int Recorder::keep(char* data, int len, void* self) {
  static_cast<Recorder*>(self)->datagrams_.emplace_back(data, data + len);
  return 0;
}

}  // namespace instructions
