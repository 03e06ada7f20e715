#include "tests/race/race_pair.h"

#include <errno.h>
#include <sys/socket.h>

#include "tarn/io.h"
#include "tests/race/race_message.h"
#include "tests/support/plain_socket.h"

namespace tarn_test {
namespace {

// Messages sent and not heard of yet; with a window of thousands of segments none ever overflows.
constexpr uint64_t kMostOutstanding = 32;
// Datagrams; beyond that they are lost, as on any link.
constexpr size_t kInboxSize = 256;
constexpr int kFedAtOnce = 16;
constexpr size_t kNocpPrefix = 12;

// Whatever reached the sockets before they were connected may be anybody's.
void drain(const PlainSocket& socket) {
  char byte = 0;
  while (recv(socket.fd(), &byte, 1, MSG_DONTWAIT) >= 0) {
  }
}

}  // namespace

void Verdict::wrong(const std::string& what) {
  const std::lock_guard<std::mutex> hold(guard_);
  if (count_++ == 0) first_ = what;
}

std::string Verdict::first() const {
  const std::lock_guard<std::mutex> hold(guard_);
  return first_;
}

RaceEnd& RaceEnd::other() const { return pair_.end(1 - index_); }

template <size_t alias>
RaceEnd* RaceEnd::own(void* user) {
  auto* const given = static_cast<Alias*>(user);
  if (given->index != alias) given->end->pair_.verdict().wrong("a callback with another's user");
  return given->end;
}

template <size_t alias>
RaceEnd::Functions RaceEnd::functions() {
  return {[](char* data, int len, void* user) {
            own<alias>(user)->other().put(data, static_cast<size_t>(len));
            return 0;
          },
          [](char* data, int len, void* user) {
            own<alias>(user)->hear(data, static_cast<size_t>(len), true);
            return 0;
          },
          [](char* data, int len, void* user) {
            own<alias>(user)->hear(data, static_cast<size_t>(len), false);
            return 0;
          },
          [](TarnError code, void* user) {
            RaceEnd* const end = own<alias>(user);
            if (code == TARN_ERROR_SEND_OVERFLOW) end->pair_.verdict().wrong("a full window");
            return 0;
          }};
}

void RaceEnd::create() { handle_ = tarn_create(); }

void RaceEnd::set_callbacks(size_t alias) {
  const Functions all = alias == 0 ? functions<0>() : functions<1>();
  void* const user = &aliases_[alias];
  if (!pair_.is_over_udp()) tarn_set_output_callback(handle_, all.output, user);
  tarn_set_recv_reliable_callback(handle_, all.reliable, user);
  tarn_set_recv_unreliable_callback(handle_, all.unreliable, user);
  tarn_set_error_callback(handle_, all.error, user);
}

void RaceEnd::send_reliable(uint32_t thread, size_t size) {
  if (sent_ - other().received_ >= kMostOutstanding) return;
  ++sent_;
  std::vector<char> message =
      make_message({pair_.number(), index_, thread, next_sent_[thread]++}, size);
  if (pair_.is_controlled()) {
    if (take(message)) return;
    --sent_;
    --next_sent_[thread];
    return;
  }
  tarn_send_reliable(handle_, message.data(), static_cast<int>(size));
}

bool RaceEnd::take(const std::vector<char>& message) {
  ++tries_;
  const int result = tarn_try_send_reliable(handle_, message.data(), message.size());
  if (result != 0 && result != -EAGAIN && result != -ESHUTDOWN && result != -EBADF) {
    pair_.verdict().wrong("a message that is neither taken nor refused");
  }
  if (result == 0) ++taken_;
  return result == 0;
}

// A queue that a few messages fill, and a small window.
void RaceEnd::take_control() {
  constexpr long long kQueue = 6000;
  constexpr long long kWindow = 8;
  const int results[] = {tarn_set_option(handle_, TARN_OPTION_SEND_QUEUE, kQueue),
                         tarn_set_option(handle_, TARN_OPTION_SEND_WINDOW, kWindow),
                         tarn_set_option(handle_, TARN_OPTION_PEER_WINDOW, -1),
                         tarn_set_writable_callback(handle_, &RaceEnd::on_writable, this)};
  for (const int result : results) {
    if (result != 0) pair_.verdict().wrong("a new session that cannot be controlled");
  }
}

// Never more often than somebody has been refused; by the counts, at most.
void RaceEnd::on_writable(void* session, void* user) {
  auto* const end = static_cast<RaceEnd*>(user);
  const uint64_t told = ++end->told_;
  const uint64_t taken = end->taken_;
  if (taken + told > end->tries_) end->pair_.verdict().wrong("told of room without a refusal");
  tarn_send_room(session);
}

void RaceEnd::change_option(unsigned number) {
  const long long value = number / 8 % 64;
  switch (number % 8) {
    case 0:
      tarn_set_option(handle_, TARN_OPTION_SEND_WINDOW, 1 + value);
      return;
    case 1:
      tarn_set_option(handle_, TARN_OPTION_RECV_WINDOW, 1 + value);
      return;
    case 2:
      tarn_set_option(handle_, TARN_OPTION_SEND_QUEUE, 3000 + 100 * value);
      return;
    case 3:
      tarn_set_option(handle_, TARN_OPTION_PEER_WINDOW, value % 2 == 0 ? -1 : value);
      return;
    case 4:
      tarn_set_option(handle_, TARN_OPTION_KEEP_ALIVE_MS, value);
      return;
    case 5:
      tarn_set_option(handle_, TARN_OPTION_PEER_TIMEOUT_MS, 10 * value);
      return;
    default:
      tarn_set_writable_callback(handle_, &RaceEnd::on_writable, this);
      return;
  }
}

void RaceEnd::look_at_stats() {
  const uint64_t taken = taken_;
  TarnStats stats;
  const int result = tarn_get_stats(handle_, &stats, sizeof stats);
  Verdict& verdict = pair_.verdict();
  if (result == -ESHUTDOWN || result == -EBADF) return;
  if (result != 0) return verdict.wrong("no statistics");
  if (stats.messages_sent < taken) verdict.wrong("a message that is taken and not counted");
  if (stats.messages_sent > tries_) verdict.wrong("more messages are counted than there were");
}

void RaceEnd::send_unreliable(uint32_t thread, size_t size, bool in_place) {
  const MessageId id{pair_.number(), index_, thread, 0};
  std::vector<char> message = make_message(id, size, in_place ? kNocpPrefix : 0);
  if (in_place) {
    tarn_send_unreliable_nocp(handle_, message.data(), static_cast<int>(size));
  } else {
    tarn_send_unreliable(handle_, message.data(), static_cast<int>(size));
  }
}

void RaceEnd::put(const char* data, size_t size) {
  const std::lock_guard<std::mutex> hold(guard_);
  if (pair_.is_connected() && inbox_.size() < kInboxSize) inbox_.emplace_back(data, data + size);
}

void RaceEnd::feed() {
  const std::unique_lock<std::mutex> feeder(feeding_, std::try_to_lock);
  if (!feeder.owns_lock()) return;
  for (int i = 0; i < kFedAtOnce; ++i) {
    std::vector<char> datagram;
    {
      const std::lock_guard<std::mutex> hold(guard_);
      if (inbox_.empty()) return;
      datagram = std::move(inbox_.front());
      inbox_.pop_front();
    }
    tarn_input(handle_, datagram.data(), static_cast<int>(datagram.size()));
  }
}

void RaceEnd::hear(const char* data, size_t size, bool reliable) {
  MessageId id{};
  Verdict& verdict = pair_.verdict();
  if (!read_message(data, size, id)) return verdict.wrong("a message with wrong bytes");
  if (id.pair != pair_.number() || id.end != other().index_ || id.thread >= kRaceThreads) {
    return verdict.wrong("a message for somebody else");
  }
  if (!reliable) return;
  const std::lock_guard<std::mutex> hold(guard_);
  if (id.number != next_heard_[id.thread]) verdict.wrong("a message out of order");
  next_heard_[id.thread] = id.number + 1;
  ++received_;
}

void RaceEnd::attach(int fd) {
  io_ = tarn_create_io_from_fd(fd);
  tarn_attach_io(handle_, io_);
}

void RaceEnd::destroy_io() {
  if (io_ != nullptr) tarn_destroy_io(io_);
  const std::lock_guard<std::mutex> hold(guard_);
  inbox_.clear();
}

void RacePair::create() {
  first_.create();
  second_.create();
}

void RacePair::connect() {
  connected_ = true;
  if (is_controlled()) {
    first_.take_control();
    second_.take_control();
  }
  first_.set_callbacks(0);
  second_.set_callbacks(1);
  if (!over_udp_) return;
  PlainSocket sockets[] = {PlainSocket::udp(), PlainSocket::udp()};
  sockets[0].connect(sockets[1].port());
  sockets[1].connect(sockets[0].port());
  for (size_t i = 0; i < 2; ++i) {
    drain(sockets[i]);
    end(i).attach(sockets[i].release());
  }
}

void RacePair::disconnect() {
  connected_ = false;
  first_.destroy_io();
  second_.destroy_io();
}

bool RacePair::everything_arrived() const {
  return first_.sent() == second_.received() && second_.sent() == first_.received();
}

}  // namespace tarn_test
