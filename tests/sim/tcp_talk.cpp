#include "tests/sim/tcp_talk.h"

#include <errno.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "tarn/io.h"
#include "tests/sim/boundary.h"
#include "tests/sim/failure.h"

namespace tarn_sim {
namespace {

constexpr size_t kMostBytes = 400'000;
constexpr size_t kMostAtOnce = 100'000;
constexpr uint64_t kLongestRefusal = 2 * kNsPerSecond;
constexpr uint64_t kPatience = 60 * kNsPerSecond;

std::string draw_stream(Random& random) {
  std::string bytes(random.between(0, kMostBytes), '\0');
  for (char& each : bytes) each = static_cast<char>(random.bits());
  return bytes;
}

}  // namespace

TcpTalk::TcpTalk(World& world, std::string name, Random random)
    : world_(world),
      name_(std::move(name)),
      client_{*this, "client", draw_stream(random), random.fork()},
      server_{*this, "server", draw_stream(random), random.fork()} {}

void TcpTalk::run() {
  port_ = world_.network().reserve_port();
  be_refused();
  connect();
  Scheduler& scheduler = world_.scheduler();
  const TaskId client = scheduler.spawn(name_ + ".client", [this] { write_all(client_); });
  const TaskId server = scheduler.spawn(name_ + ".server", [this] { write_all(server_); });
  scheduler.join(client);
  scheduler.join(server);
  wait_for("the last byte", [this] {
    return client_.seen == server_.out.size() && server_.seen == client_.out.size();
  });
  hang_up();
}

template <typename Condition>
void TcpTalk::wait_for(const char* what, Condition condition) {
  const uint64_t deadline = world_.scheduler().now() + kPatience;
  while (!condition()) {
    if (world_.scheduler().now() > deadline) fail("{}: waits for {} in vain", name_, what);
    world_.scheduler().sleep(kNsPerMs);
  }
}

void TcpTalk::check_locks(const char* what) const {
  if (world_.locks().held_count() > 0) {
    fail("{}: a lock is held across the {} callback", name_, what);
  }
  world_.scheduler().point();
}

// Nobody listens yet. The error comes again until the handle is gone, which may be long after.
void TcpTalk::be_refused() {
  give_up_at_ = world_.scheduler().now() +
                client_.random.between(0, 1) * client_.random.between(0, kLongestRefusal);
  {
    const InsideLibrary inside;
    refused_ = tarn_create_tcp_io("127.0.0.1", port_);
    tarn_set_io_error_callback(refused_, &TcpTalk::on_refusal, this);
  }
  wait_for("the refusal of its connection", [this] { return refused_ == nullptr; });
}

void TcpTalk::on_refusal(int, void* self) {
  const OutsideLibrary outside;
  TcpTalk& talk = *static_cast<TcpTalk*>(self);
  talk.check_locks("error");
  if (talk.world_.scheduler().now() < talk.give_up_at_) return;
  void* const io = std::exchange(talk.refused_, nullptr);
  if (io == nullptr) fail("{}: an error after the handle was destroyed", talk.name_);
  const InsideLibrary inside;
  tarn_destroy_io(io);
}

void TcpTalk::connect() {
  {
    const InsideLibrary inside;
    listener_ = tarn_start_listen_tcp(port_, &TcpTalk::on_peer, this);
    client_.io = tarn_create_tcp_io("127.0.0.1", port_);
    tarn_set_io_error_callback(client_.io, &TcpTalk::on_error, &client_);
    tarn_set_readable_callback(client_.io, &TcpTalk::on_readable, &client_);
  }
  wait_until_writeable(client_);
  wait_for("its peer", [this] { return server_.io != nullptr; });
}

void TcpTalk::on_peer(void* io, void* self) {
  const OutsideLibrary outside;
  TcpTalk& talk = *static_cast<TcpTalk*>(self);
  talk.check_locks("new peer");
  if (talk.server_.io != nullptr) fail("{}: a second peer out of one", talk.name_);
  talk.server_.io = io;
  const InsideLibrary inside;
  tarn_set_io_error_callback(io, &TcpTalk::on_error, &talk.server_);
  tarn_set_readable_callback(io, &TcpTalk::on_readable, &talk.server_);
}

void TcpTalk::on_error(int error, void* end) {
  const OutsideLibrary outside;
  const End& failed = *static_cast<End*>(end);
  fail("{}.{}: error {} of a sound connection", failed.talk.name_, failed.name, error);
}

void TcpTalk::on_writeable(void* end) {
  const OutsideLibrary outside;
  End& told = *static_cast<End*>(end);
  told.talk.check_locks("writeable");
  if (told.writeable) fail("{}.{}: told twice that it is writeable", told.talk.name_, told.name);
  told.writeable = true;
}

void TcpTalk::wait_until_writeable(End& end) {
  end.writeable = false;
  {
    const InsideLibrary inside;
    tarn_set_writeable_callback(end.io, &TcpTalk::on_writeable, &end);
  }
  wait_for("room to write", [&end] { return end.writeable; });
}

void TcpTalk::write_all(End& end) {
  while (end.written < end.out.size()) {
    const size_t most = std::min(kMostAtOnce, end.out.size() - end.written);
    const size_t size = end.random.between(1, most);
    int result = 0;
    int error = 0;
    {
      const InsideLibrary inside;
      result = tarn_write(end.io, end.out.data() + end.written, static_cast<int>(size));
      error = errno;
    }
    world_.event("{} {} writes {}", name_, std::string_view(end.name), result);
    if (result < 0 && error != EAGAIN) fail("{}.{}: error {}", name_, end.name, error);
    if (result > static_cast<int>(size)) fail("{}.{}: too much written", name_, end.name);
    if (result > 0) end.written += static_cast<size_t>(result);
    if (result < 0) wait_until_writeable(end);
  }
}

void TcpTalk::on_readable(void* end) {
  const OutsideLibrary outside;
  End& reader = *static_cast<End*>(end);
  reader.talk.check_locks("readable");
  reader.talk.read_some(reader);
}

// What is in the buffer has to be what comes next. Its size.
size_t TcpTalk::look(const End& end) {
  const InsideLibrary inside;
  const auto size = static_cast<size_t>(tarn_peek_size(end.io));
  const std::string_view bytes(tarn_peek(end.io), size);
  const OutsideLibrary outside;
  world_.event("{} {} sees {} bytes", name_, std::string_view(end.name), size);
  const std::string& expected = other(end).out;
  if (end.consumed + size > expected.size() || expected.compare(end.consumed, size, bytes) != 0) {
    fail("{}.{}: {} bytes that are not the next ones", name_, end.name, size);
  }
  return size;
}

// Takes a part and leaves the rest for the next time.
void TcpTalk::read_some(End& end) {
  const size_t size = look(end);
  const bool nothing_new = end.consumed + size == end.seen;
  if (nothing_new && (!hung_up_ || end.ended)) fail("{}.{}: called for nothing", name_, end.name);
  const size_t seen = end.consumed + size;
  const size_t taken = end.random.between(0, size);
  {
    const InsideLibrary inside;
    tarn_consume(end.io, static_cast<int>(taken));
  }
  end.consumed += taken;
  // Last: somebody waits for these.
  end.seen = seen;
  end.ended = nothing_new;
}

// The buffer outlives the connection's other end.
void TcpTalk::read_rest(const End& end) {
  if (end.consumed + look(end) != other(end).out.size()) {
    fail("{}.{}: the end is missing", name_, end.name);
  }
}

void TcpTalk::hang_up() {
  read_rest(client_);
  hung_up_ = true;
  {
    const InsideLibrary inside;
    tarn_destroy_io(client_.io);
  }
  wait_for("the end of the stream", [this] { return server_.ended; });
  read_rest(server_);
  const InsideLibrary inside;
  tarn_destroy_io(server_.io);
  tarn_stop_listen(listener_);
}

}  // namespace tarn_sim
