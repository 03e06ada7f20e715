// What nearly every test of the C interface starts from: the library running on a clock that the
// test moves, and sessions whose callbacks are recorded.
//
// The worker sleeps in real time but takes its due times from the clock. `advance` moves the clock
// and then waits until the worker has completed a turn at the new time, so that "nothing was sent"
// is as certain as "this was sent".
#ifndef TARN_TESTS_SUPPORT_SESSION_FIXTURE_H_
#define TARN_TESTS_SUPPORT_SESSION_FIXTURE_H_

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tarn/tarn.h"
#include "tests/support/datagram_recorder.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_peer.h"
#include "tests/support/virtual_clock.h"

namespace tarn_test {

// Polls until `done`; false after `ms` milliseconds of real time.
bool wait_until(const std::function<bool()>& done, int ms = 20000);

// The text that printf makes.
std::string text(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Brings every setting back to its default, for programs that run many tests in one process.
void restore_default_settings();

// Returns when the worker has completed a turn that began after the call.
void settle();
// The same for a turn that began after `change`.
void settle_after(const std::function<void()>& change);

// Waits until the worker has dropped a destroyed session.
bool wait_until_gone(void* handle);

// A session with all four callbacks recorded, destroyed at the end of the scope.
class Endpoint {
 public:
  Endpoint();
  ~Endpoint();
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  void* handle() const { return handle_; }
  void input(const Bytes& bytes) { feed(handle_, bytes); }
  void send(const Bytes& message);
  void send(const std::string& message) { send(bytes_of(message)); }
  void send_unreliable(const Bytes& message);
  void send_unreliable(const std::string& message) { send_unreliable(bytes_of(message)); }
  // Destroys the session and waits until the worker has dropped it.
  void destroy();
  // For a session that has been destroyed by other means.
  void forget() { handle_ = nullptr; }

  // The numbers of the reliable segments sent, in order.
  std::vector<int> sent_numbers() const;
  // Forgets what was recorded.
  void clear();

  DatagramRecorder sent;
  DatagramRecorder reliable_received;
  DatagramRecorder unreliable_received;
  ErrorRecorder errors;

 private:
  void* handle_;
};

// Lines that name this session.
std::vector<LogLine> lines_about(const LogCapture& log, const void* session);

// Keeps the worker busy while it lives, so that nothing handed over to it is carried out meanwhile:
// a session destroyed in this time stays registered. Uses the text-only log callback.
class WorkerHold {
 public:
  WorkerHold();
  ~WorkerHold();
  WorkerHold(const WorkerHold&) = delete;
  WorkerHold& operator=(const WorkerHold&) = delete;
  // Lets the worker go on, before the end of the scope.
  void release();

 private:
  void* decoy_;
};

class SessionFixture : public ::testing::Test {
 protected:
  SessionFixture();
  ~SessionFixture() override;

  // Moves the clock by `ms` and lets the worker catch up.
  void advance(int64_t ms);
  // The same in steps of `step`, each followed by a turn of the worker.
  void advance_by_steps(int64_t ms, int64_t step = 10);

  VirtualClock clock_;
};

// The library on the real clock.
class RealTimeFixture : public ::testing::Test {
 protected:
  RealTimeFixture();
  ~RealTimeFixture() override;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_SESSION_FIXTURE_H_
