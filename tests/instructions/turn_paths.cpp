// What the worker does for each of many sessions in one turn.
#include <future>
#include <memory>
#include <vector>

#include "tarn/tarn.h"
#include "tests/instructions/count.h"
#include "tests/instructions/ends.h"
#include "tests/instructions/paths.h"

namespace instructions {

namespace {

constexpr int kSessions = 100;
// The re-send timer's, and as long a cycle: the timers of a session are then due one after the
// other, and those of the sessions in the order in which they were made.
constexpr unsigned int kPeriodMs = 30;
// The first re-send of a segment is in the second turn after it was written. Both run at once.
constexpr unsigned int kTwoTurnsMs = 2 * kPeriodMs;

// Counts from the first session's first datagram to the last one's, on the worker.
class Turn {
 public:
  Turn(const Path& path, tarn_test::VirtualClock& clock) : path_(path), clock_(clock) {}

  // `prepare` gets each session but the first and last ones, `prepare_ends` those two: they have to
  // emit something, or nothing is ever counted.
  template <typename Prepare, typename PrepareEnds>
  void run(const Prepare& prepare, const PrepareEnds& prepare_ends) {
    {
      RestingWorker worker(clock_);
      tarn_config_rtx_timeout(kPeriodMs);
      worker.run([&] {
        for (int i = 0; i <= kSessions; ++i) {
          ends_.push_back(std::make_unique<End>());
          const End& end = *ends_.back();
          i == 0 || i == kSessions ? prepare_ends(end) : prepare(end);
          tarn_set_output_callback(end.handle(), count_call, &emitted_);
        }
        tarn_set_output_callback(ends_.front()->handle(), begin, this);
        tarn_set_output_callback(ends_.back()->handle(), end, this);
        clock_.advance_ms(kTwoTurnsMs);
      });
    }
    ended_.get_future().wait();
  }

  // Datagrams of the sessions between the first and the last one.
  long emitted() const { return emitted_; }

 private:
  static int begin(char*, int, void* self) {
    auto* const turn = static_cast<Turn*>(self);
    tarn_set_output_callback(turn->ends_.front()->handle(), discard, nullptr);
    begin_count();
    return 0;
  }

  static int end(char*, int, void* self) {
    end_count();
    auto* const turn = static_cast<Turn*>(self);
    tarn_set_output_callback(turn->ends_.back()->handle(), discard, nullptr);
    report(turn->path_);
    turn->ended_.set_value();
    return 0;
  }

  const Path path_;
  tarn_test::VirtualClock& clock_;
  std::vector<std::unique_ptr<End>> ends_;
  long emitted_ = 0;
  std::promise<void> ended_;
};

template <typename Prepare, typename PrepareEnds>
void count_turn(const char* name, tarn_test::VirtualClock& clock, long emitted,
                const Prepare& prepare, const PrepareEnds& prepare_ends) {
  const Path path{name, 1, kSessions};
  Turn turn(path, clock);
  turn.run(prepare, prepare_ends);
  require(turn.emitted() == emitted, path, "other datagrams than expected");
}

}  // namespace

void count_turns(tarn_test::VirtualClock& clock) {
  std::vector<char> message(1024, 'x');
  std::vector<char> datagram = Recorder().record(1, 1024).front();
  const auto send = [&](const End& end) { end.send_reliable(message); };
  const auto receive = [&](const End& end) { end.input(datagram); };
  const auto nothing = [](const End&) {};

  count_turn("turn_of_idle_session", clock, 0, nothing, send);
  count_turn("turn_with_resend_1024", clock, kSessions - 1, send, send);
  count_turn("turn_with_acknowledgement", clock, kSessions - 1, receive, receive);
}

}  // namespace instructions
