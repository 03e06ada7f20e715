// The timer queue on a clock that goes where the input wants it, also inside a pass, with functions
// that throw, against a model of due times.
#include <pthread.h>
#include <stdlib.h>

#include <utility>
#include <vector>

#include "src/tarn_thread_base.h"
#include "src/tarn_timer.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/fuzz_input.h"
#include "tests/fuzz/support/timer_model.h"
#include "tests/support/virtual_clock.h"

namespace {

using tarn_fuzz::FuzzInput;
using tarn_fuzz::TimerModel;

constexpr size_t kMaxTimers = 100;
// What a pass may have to catch up; together with the shortest interval it bounds a run.
constexpr int64_t kMaxLag = 4000;
constexpr int kShortestInterval = 10;

// Is the queue's thread or is not, as it is told.
class SwitchedOwner : public TarnThreadBase {
 public:
  bool is_here = true;

  void drain() {
    for (const oxutils::Function& f : std::exchange(handed_over_, {})) f();
  }

  pthread_t get_tid() override { return is_here ? pthread_self() : pthread_t{}; }
  void run(oxutils::Function f) override {
    if (is_here) {
      f();
    } else {
      handed_over_.push_back(std::move(f));
    }
  }

  // The queue asks for no more than that.
  void start() override {}
  void stop() override {}
  void wait(oxutils::Function) override {}
  int run_every(int, oxutils::Function) override { return 0; }
  int run_after(int, oxutils::Function) override { return 0; }
  int run_at(int, oxutils::Function) override { return 0; }
  void cancel_timer(int) override {}
  int get_timeout() override { return 0; }
  void update() override {}

 private:
  std::vector<oxutils::Function> handed_over_;
};

uint64_t first_ms(FuzzInput& input) {
  switch (input.below(4)) {
    case 0:
      return 1'000'000;
    case 1:
      return (uint64_t{1} << 32) - input.u16();  // close to the wrap of the tick
    case 2:
      return (uint64_t{1} << 31) - input.u16();
    default:
      return (uint64_t{1} << 33) + input.u32();
  }
}

// Every timer holds one: so many are alive.
class Token {
 public:
  Token() { ++count_; }
  Token(const Token&) { ++count_; }
  ~Token() { --count_; }
  static size_t count() { return count_; }

 private:
  static inline size_t count_ = 0;
};

struct Left {};

class Script {
 public:
  explicit Script(FuzzInput& input) : input_(input), now_us_(first_ms(input) * 1000) {
    model_.set_now(tick());
  }

  void run() {
    while (!input_.empty()) {
      owner_.is_here = true;
      step();
      FUZZ_CHECK(queue_.get_timeout() == model_.timeout());
      FUZZ_CHECK(Token::count() == model_.live());
    }
    owner_.is_here = true;
    queue_drain();
    pass();
  }

 private:
  uint32_t tick() const { return static_cast<uint32_t>((now_us_ + 200) / 1000); }

  void step() {
    switch (input_.below(8)) {
      case 0:
        pass();
        break;
      case 1:
        go(static_cast<int64_t>(input_.u8()) * 1000);
        pass();
        break;
      case 2:
        step_forward();
        break;
      case 3:
        step_back();
        break;
      case 4:
        leap();
        break;
      case 5:
        queue_drain();
        break;
      default:
        change();
        break;
    }
  }

  void step_forward() { go(static_cast<int64_t>(input_.u16()) * 50); }
  void step_back() { go(-static_cast<int64_t>(input_.u16()) * 20); }

  // Periodic timers catch up period by period, hence the bound.
  void go(int64_t us) {
    if (model_.has_periodic() && lag_us_ + llabs(us) > kMaxLag * 1000) return;
    if (us < 0 && now_us_ < static_cast<uint64_t>(-us)) return;
    lag_us_ += llabs(us);
    set_now(now_us_ + static_cast<uint64_t>(us));
  }

  void leap() {
    const auto ms = static_cast<uint64_t>(input_.u32());
    if (!model_.has_periodic() && !on_way_) set_now(now_us_ + ms * 1000);
  }

  void set_now(uint64_t us) {
    now_us_ = us;
    clock_.set_us(us);
    model_.set_now(tick());
  }

  void queue_drain() {
    owner_.drain();
    model_.drain();
    on_way_ = false;
  }

  // As the worker does it: what has been handed over, then the timers.
  void pass() {
    queue_drain();
    in_pass_ = true;
    model_.begin_pass();
    lag_us_ = 0;
    try {
      queue_.process_timers();
      FUZZ_CHECK(model_.end_pass());
    } catch (const Left&) {
      model_.leave_pass();
    }
    in_pass_ = false;
  }

  // One more timer or one less, from the queue's thread or from elsewhere.
  void change() {
    const size_t kind = input_.below(6);
    owner_.is_here = kind < 3;
    if (!owner_.is_here) on_way_ = true;
    if (kind % 3 == 0) {
      cancel();
    } else {
      add();
    }
    owner_.is_here = true;
  }

  void cancel() {
    const int id = input_.u8() == 0 ? -1 : first_id_ + static_cast<int>(input_.below(kMaxTimers));
    queue_.cancel_timer(id);
    model_.cancel(id, owner_.is_here);
  }

  int draw_delay() {
    switch (input_.below(6)) {
      case 0:
        return -static_cast<int>(input_.u8());
      case 1:
        return static_cast<int>(input_.u32() & 0x7FFFFFFF);
      case 2:
        return input_.u16();
      default:
        return input_.u8();
    }
  }

  int draw_interval() {
    switch (input_.below(4)) {
      case 0:
        return kShortestInterval + static_cast<int>(input_.below(4)) * 20;
      case 1:
        return kShortestInterval + input_.u16();
      case 2:
        return -static_cast<int>(input_.u8());
      default:
        return 0;
    }
  }

  void add() {
    if (count_ == kMaxTimers) return;
    const int interval = draw_interval();
    // Half the range of the tick ahead is as good as behind, and would have to be caught up.
    const int delay = interval > 0 ? input_.u16() : draw_delay();
    const int index = static_cast<int>(count_++);
    const int id =
        queue_.add_timer(oxutils::Function(this, &Script::on_run, index, Token()), delay, interval);
    if (index == 0) first_id_ = id;
    FUZZ_CHECK(id == first_id_ + index);
    model_.add(id, delay, interval, owner_.is_here);
  }

  void on_run(int index, Token) {
    FUZZ_CHECK(in_pass_);
    FUZZ_CHECK(model_.took_place(first_id_ + index));
    if (input_.empty()) return;
    switch (input_.below(16)) {
      case 0:
      case 4:
      case 8:
      case 12:
        change();
        break;
      case 1:
        throw Left();
      case 2:
        step_back();
        break;
      case 3:
        step_forward();
        break;
      default:
        break;
    }
  }

  FuzzInput& input_;
  uint64_t now_us_;
  tarn_test::VirtualClock clock_{now_us_ / 1000};
  SwitchedOwner owner_;
  TarnTimerQueue queue_{&owner_};
  TimerModel model_{tick()};
  size_t count_ = 0;
  int first_id_ = 1;
  int64_t lag_us_ = 0;
  bool in_pass_ = false;
  bool on_way_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  Script(input).run();
  return 0;
}
