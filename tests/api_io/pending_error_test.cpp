// A pending error of a UDP socket, such as the refusal of a datagram by the peer's host: it is the
// next send's or receive's to fail with, once, and keeps no datagram waiting.
#include <dlfcn.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <string>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

constexpr int kSends = 20;

const pthread_t main_thread = pthread_self();

// What runs before each wait of the I/O thread.
std::atomic<const std::function<void()>*> before_wait{nullptr};

void note_wait(int timeout) {
  const std::function<void()>* const code = before_wait;
  if (code != nullptr && timeout > 0 && pthread_equal(main_thread, pthread_self()) == 0) (*code)();
}

template <typename Call>
Call* system_call(const char* name) {
  return reinterpret_cast<Call*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These two stand in front of the system's: the library's own calls come here.
extern "C" int poll(pollfd* fds, nfds_t count, int timeout) {
  static auto* const system = system_call<int(pollfd*, nfds_t, int)>("poll");
  note_wait(timeout);
  return system(fds, count, timeout);
}

extern "C" int epoll_wait(int set, epoll_event* events, int most, int timeout) {
  static auto* const system = system_call<int(int, epoll_event*, int, int)>("epoll_wait");
  note_wait(timeout);
  return system(set, events, most, timeout);
}

namespace {

// A handle whose peer refuses what it sends, and sends all the same: its socket is connected to
// somebody else, so that the host finds nobody for the handle's datagrams.
class RefusedHandle : public SocketFixture {
 protected:
  RefusedHandle() {
    PlainSocket own = PlainSocket::udp();
    own.connect(peer_.port());
    peer_.connect(9);
    fd_ = own.fd();
    port_ = own.port();
    io_ = tarn_create_io_from_fd(own.release());
  }
  ~RefusedHandle() override { tarn_destroy_io(io_); }

  // How many writes are refused. Everything that is to be told in between is told.
  int failed_writes() const {
    int failed = 0;
    for (int i = 0; i < kSends; ++i) {
      const int result = tarn_write(io_, "x", 1);
      if (result < 0 && errno == ECONNREFUSED) ++failed;
      io_thread_pass();
    }
    return failed;
  }

  // Leaves a pending error on the socket, as a datagram of the handle's would.
  void be_refused() const {
    while (send(fd_, "x", 1, MSG_NOSIGNAL) < 0) {
    }
  }

  static int bare_failures() {
    PlainSocket own = PlainSocket::udp();
    own.connect(free_port());
    int failed = 0;
    for (int i = 0; i < kSends; ++i) failed += own.send("x") ? 0 : 1;
    return failed;
  }

  PlainSocket peer_ = PlainSocket::udp();
  int fd_ = -1;
  unsigned short port_ = 0;
  void* io_ = nullptr;
};

// Takes one datagram an event, as an application may.
struct Reader {
  static void on_readable(void* reader) {
    auto* const self = static_cast<Reader*>(reader);
    char buffer[100];
    if (tarn_read(self->io, buffer, sizeof buffer) > 0)
      ++self->received;
    else if (errno == ECONNREFUSED)
      ++self->failed;
  }
  void* io;
  std::atomic<int> received{0};
  std::atomic<int> failed{0};
};

}  // namespace

TEST_F(RefusedHandle, ItsWritesFailAsOftenAsTheKernelsDo) {
  ASSERT_EQ(bare_failures(), kSends / 2);

  EXPECT_EQ(failed_writes(), kSends / 2) << "not watched";
}

TEST_F(RefusedHandle, ItsWritesFailAsOftenWithAReadableCallback) {
  EventCounter readable;
  tarn_set_readable_callback(io_, EventCounter::on_event, &readable);
  const LogCapture log(1);

  EXPECT_EQ(failed_writes(), kSends / 2);

  EXPECT_EQ(log.count_containing(text("fd %d send failed error = %d", fd_, ECONNREFUSED)),
            kSends / 2);
  EXPECT_EQ(readable.count(), 0) << "there is nothing to read";
}

TEST_F(RefusedHandle, ItsWritesFailAsOftenWithANullReadableCallback) {
  tarn_set_readable_callback(io_, nullptr, nullptr);

  EXPECT_EQ(failed_writes(), kSends / 2);
}

TEST_F(RefusedHandle, EachErrorIsToldOnceToTheErrorCallbackAndFailsOneWrite) {
  EventCounter errors;
  tarn_set_io_error_callback(io_, EventCounter::on_error, &errors);
  io_thread_pass();

  EXPECT_EQ(failed_writes(), kSends / 2);

  io_thread_pass();
  EXPECT_EQ(errors.count(), kSends / 2);
}

TEST_F(RefusedHandle, ItsWritesFailAsOftenOnceTheErrorCallbackIsNull) {
  EventCounter readable;
  tarn_set_readable_callback(io_, EventCounter::on_event, &readable);
  tarn_set_io_error_callback(io_, nullptr, nullptr);

  EXPECT_EQ(failed_writes(), kSends / 2);
}

TEST_F(RefusedHandle, AnErrorWithoutTheApplicationsWatchIsNotRemembered) {
  EventCounter events;
  tarn_set_readable_callback(io_, EventCounter::on_event, &events);
  be_refused();
  io_thread_pass();
  io_thread_pass();

  tarn_set_io_error_callback(io_, EventCounter::on_error, &events);
  io_thread_pass();

  EXPECT_EQ(events.count(), 0);
}

TEST_F(RefusedHandle, AnAttachedSessionsSendsFailAndAreLoggedAsOften) {
  Endpoint session;
  tarn_attach_io(session.handle(), io_);
  io_thread_pass();
  const LogCapture log(1);

  for (int i = 0; i < kSends; ++i) {
    session.send_unreliable("x");
    io_thread_pass();
  }

  EXPECT_EQ(log.count_containing(text("fd %d send failed error = %d", fd_, ECONNREFUSED)),
            kSends / 2);
}

TEST_F(RefusedHandle, AReceiveFailsWithTheErrorOnceAndThenReads) {
  EventCounter readable;
  tarn_set_readable_callback(io_, EventCounter::on_event, &readable);
  be_refused();
  io_thread_pass();
  io_thread_pass();
  tarn_set_readable_callback(io_, nullptr, nullptr);
  peer_.send_to(port_, "datagram");
  ASSERT_TRUE(wait_until([&] { return tarn_peek_size(io_) == 8; }));
  char buffer[100];

  EXPECT_EQ(tarn_read(io_, buffer, sizeof buffer), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(tarn_read(io_, buffer, sizeof buffer), 8);
  EXPECT_EQ(tarn_write(io_, "x", 1), 1) << "the error has been told";
}

TEST_F(RefusedHandle, EveryReceiveFailsWhoseSendWasRefused) {
  char buffer[100];
  for (int i = 0; i < kSends; ++i) {
    EXPECT_EQ(tarn_write(io_, "x", 1), 1);
    EXPECT_EQ(tarn_read(io_, buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
  }
}

TEST_F(RefusedHandle, TheErrorOfADestroyedHandleIsForgotten) {
  tarn_set_readable_callback(io_, nullptr, nullptr);
  be_refused();
  io_thread_pass();
  tarn_destroy_io(io_);
  const LogCapture log(1);

  EXPECT_EQ(tarn_write(io_, "x", 1), -1);

  EXPECT_EQ(log.count_containing(text("fd -1 send failed error = %d", EBADF)), 1);
}

// An error is pending before each pass; a pass that rested for it, or a reader that went on
// failing, would need far more of them.
TEST_F(RefusedHandle, AFloodOfErrorsDelaysNoDatagramOfAReader) {
  constexpr int kDatagrams = 50;
  Reader reader{io_, {}, {}};
  for (int i = 0; i < kDatagrams; ++i) peer_.send_to(port_, "datagram");
  ASSERT_TRUE(wait_until([&] { return tarn_peek_size(io_) == 8; }));
  std::atomic<int> passes{0};
  const std::function<void()> flood = [&] {
    if (reader.received < kDatagrams) ++passes;
    be_refused();
  };
  before_wait = &flood;

  tarn_set_readable_callback(io_, Reader::on_readable, &reader);

  EXPECT_TRUE(wait_until([&] { return reader.received == kDatagrams; }, 5000));
  before_wait = nullptr;
  io_thread_pass();
  EXPECT_LE(passes, 2 * kDatagrams + 10);
  EXPECT_GE(reader.failed, kDatagrams / 2) << "the errors are told as well";
}

TEST_F(RefusedHandle, AFloodOfErrorsDelaysNoDatagramOfAnAttachedSession) {
  constexpr int kDatagrams = 50;
  Endpoint sender;
  Endpoint receiver;
  for (int i = 0; i < kDatagrams; ++i) sender.send_unreliable("datagram");
  for (const Bytes& each : sender.sent.all()) {
    peer_.send_to(port_, std::string(each.begin(), each.end()));
  }
  std::atomic<int> passes{0};
  const std::function<void()> flood = [&] {
    if (receiver.unreliable_received.count() < kDatagrams) ++passes;
    be_refused();
  };
  before_wait = &flood;

  tarn_attach_io(receiver.handle(), io_);

  EXPECT_TRUE(wait_until([&] { return receiver.unreliable_received.count() == kDatagrams; }, 5000));
  before_wait = nullptr;
  io_thread_pass();
  EXPECT_LE(passes, kDatagrams + 10);
}
