// Two sessions and everything that may happen between them: messages of any size, a link that
// loses, repeats, reorders, cuts and corrupts, a clock that leaps, settings that change, callbacks
// that call back. At the end the link is left in peace and everything that can arrive has to.
#include <algorithm>
#include <deque>
#include <memory>
#include <string>
#include <utility>

#include "tarn/tarn.h"
#include "tests/fuzz/support/bad_link.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/fuzz_input.h"
#include "tests/fuzz/support/library_run.h"
#include "tests/fuzz/support/pair_end.h"

namespace {

using tarn_fuzz::BadLink;
using tarn_fuzz::FuzzInput;
using tarn_fuzz::LibraryRun;
using tarn_fuzz::PairEnd;

// What bounds the work of one run.
constexpr size_t kMaxSegments = 120;   // reliable, of each end
constexpr size_t kMaxBytes = 300'000;  // of all messages
constexpr int64_t kMaxElapsedMs = 12'000;
constexpr int kMaxDepth = 12;  // of callbacks that call back

constexpr int kResendStepMs = 30;
// A stored segment goes out every 120 ms.
constexpr int kStepsToProgress = 8;

uint64_t first_ms(FuzzInput& input) {
  constexpr uint64_t kWrap = uint64_t{1} << 32;
  switch (input.below(3)) {
    case 0:
      return 1'000'000;
    case 1:
      return kWrap - input.u16() % 4096;
    default:
      return kWrap * 400 + input.u32();
  }
}

unsigned draw_first_seq(FuzzInput& input) {
  const unsigned kind = input.u8();
  if (kind < 128) return 0;
  return kind < 192 ? 65536 - kind % 64 - 1 : input.u16();
}

// All of 0 to 65530, the small and the usual ones more often.
unsigned draw_mtu(FuzzInput& input) {
  switch (input.below(4)) {
    case 0:
      return input.u8() % 32;
    case 1:
      return input.u8();
    case 2:
      return input.u16() % 65531U;
    default:
      return 1400;
  }
}

class Script {
 public:
  explicit Script(FuzzInput& input) : input_(input), run_(first_ms(input)), rtx_(draw_rtx()) {
    latest_ms_ = run_.now_ms();
    tarn_config_rtx_timeout(rtx_);
    const unsigned first_seq = draw_first_seq(input_);
    for (unsigned side = 0; side < 2; ++side) {
      mtu_[side] = draw_mtu(input_);
      ends_[side] = std::make_unique<PairEnd>(side, run_, first_seq, mtu_[side], hooks());
    }
    ends_[0]->meet(*ends_[1]);
    ends_[1]->meet(*ends_[0]);
    run_.turn();  // files their timers
  }

  void run() {
    while (!input_.empty()) step();
    leave_in_peace();
    for (const auto& end : ends_) end->destroy();
    run_.turn();
    for (const auto& end : ends_) FUZZ_CHECK(!tarn_fuzz::is_registered(end->handle()));
  }

 private:
  PairEnd::Hooks hooks() {
    return {[this](PairEnd& from, std::string datagram) { carry(from, std::move(datagram)); },
            [this](PairEnd& end) { call_back(end); }};
  }

  unsigned draw_rtx() {
    switch (input_.below(4)) {
      case 0:
        return input_.u8();
      case 1:
        return input_.u16() % 2000;
      case 2:
        return input_.flag() ? 0x80000000U : 0;
      default:
        return 50;
    }
  }

  PairEnd& draw_end() { return *ends_[input_.below(2)]; }
  PairEnd& peer_of(const PairEnd& end) { return *ends_[1 - end.side()]; }
  BadLink& sent_by(const PairEnd& end) { return links_[end.side()]; }

  void step() {
    switch (input_.below(16)) {
      case 0:
      case 1:
        send_small(draw_end());
        break;
      case 2:
        send_large(draw_end());
        break;
      case 3:
        send_unreliable(draw_end());
        break;
      case 4:
      case 5:
        deliver_one(draw_end());
        break;
      case 6:
        deliver_all(draw_end());
        break;
      case 7:
      case 8:
        mistreat_one(draw_end());
        break;
      case 9:
        advance(input_.u8() * 2);
        break;
      case 10:
        advance(input_.u16() % 8192);
        break;
      case 11:
        elapse();
        break;
      case 12:
        configure();
        break;
      case 13:
        armed_[input_.below(2)].push_back(input_.u8());
        break;
      case 14:
        is_wired_ = input_.flag();
        break;
      default:
        do_rarely();
        break;
    }
  }

  // What is drawn is drawn in statements of its own: the order of a call's arguments is the
  // compiler's affair, and an input means the same to all of them.
  void send_small(PairEnd& end) { send_reliable(end, input_.u8()); }
  void send_large(PairEnd& end) { send_reliable(end, input_.u16()); }
  void set_conv(PairEnd& end) { tarn_set_conv(end.handle(), input_.u32()); }

  void send_reliable(PairEnd& end, size_t size) {
    const size_t segments = end.segments_of(size);
    if (segments_[end.side()] + segments > kMaxSegments || bytes_ + size > kMaxBytes) return;
    segments_[end.side()] += segments;
    bytes_ += size;
    end.send_reliable(size);
  }

  void send_unreliable(PairEnd& end) {
    const unsigned kind = input_.u8();
    const size_t size = kind < 8 ? input_.u16() : input_.u8();
    if (bytes_ + size > kMaxBytes) return;
    bytes_ += size;
    if (kind % 2 == 0) {
      end.send_unreliable(size);
    } else {
      end.send_unreliable_nocp(size);
    }
  }

  // The link, or two ends wired to each other.
  void carry(PairEnd& from, std::string datagram) {
    if (!is_wired_ || depth_ >= kMaxDepth) {
      sent_by(from).put(std::move(datagram));
      return;
    }
    ++depth_;
    peer_of(from).input(datagram);
    --depth_;
  }

  void deliver_at(PairEnd& to, size_t index) {
    BadLink& link = sent_by(peer_of(to));
    if (link.size() > 0) to.input(link.take(index));
  }

  void deliver_one(PairEnd& to) { deliver_at(to, input_.u8()); }

  void deliver_all(PairEnd& to) {
    for (size_t count = sent_by(peer_of(to)).size(); count > 0; --count) deliver_at(to, 0);
  }

  // After a corruption no more is asked than that nothing breaks.
  void mistreat_one(PairEnd& from) {
    if (!sent_by(from).mistreat(input_)) return;
    for (const auto& end : ends_) end->distrust();
    is_tainted_ = true;
  }

  void advance(int64_t ms) {
    if (elapsed_ms_ + ms > kMaxElapsedMs) return;
    elapsed_ms_ += ms;
    run_.advance(ms);
    latest_ms_ = std::max(latest_ms_, run_.now_ms());
    run_.turn();
  }

  // Without a turn of the worker, on this thread or not at all, or back.
  void elapse() {
    const unsigned ms = input_.u8();
    switch (input_.below(3)) {
      case 0:
        if (elapsed_ms_ + ms > kMaxElapsedMs) return;
        elapsed_ms_ += ms;
        run_.advance(ms);
        latest_ms_ = std::max(latest_ms_, run_.now_ms());
        break;
      case 1:
        run_.advance(-static_cast<int64_t>(ms));
        break;
      default:
        tarn_update();
        break;
    }
  }

  // From none at all to as many as the numbers allow.
  unsigned draw_window() { return input_.flag() ? input_.u8() % 64 : input_.u16() % 32768U; }

  void configure() {
    switch (input_.below(6)) {
      case 0:
        tarn_config_send_window_size(draw_window());
        break;
      case 1:
        tarn_config_recv_window_size(draw_window());
        break;
      case 2:
        tarn_config_active_timeout(input_.u16());
        break;
      case 3:
        tarn_config_thread_safe(input_.flag());
        break;
      case 4:  // of sessions to come: these two do not mind
        tarn_config_mtu(input_.u16());
        tarn_config_rtx_timeout(input_.u16());
        break;
      default:
        set_conv(draw_end());
        break;
    }
  }

  void do_rarely() {
    switch (input_.below(8)) {
      case 0:
        run_.log_at(static_cast<int>(input_.below(6)));
        break;
      case 1:
        draw_end().set_callbacks();
        break;
      case 2:
        draw_end().destroy();
        break;
      default:
        run_.turn();
        break;
    }
  }

  // What has been armed for this end happens inside its next callback.
  void call_back(PairEnd& end) {
    std::deque<unsigned>& armed = armed_[end.side()];
    if (armed.empty() || depth_ >= kMaxDepth) return;
    const unsigned action = armed.front();
    armed.pop_front();
    ++depth_;
    PairEnd& peer = peer_of(end);
    switch (action % 10) {
      case 0:
        send_reliable(end, action);
        break;
      case 1:
        send_reliable(peer, action * 16);
        break;
      case 2:
        end.send_unreliable(action);
        break;
      case 3:
        peer.send_unreliable_nocp(action);
        break;
      case 4:
        deliver_at(end, action);
        break;
      case 5:
        deliver_at(peer, action);
        break;
      case 6:
        tarn_update();
        break;
      case 7:
        tarn_set_conv(end.handle(), action / 100);
        break;
      case 8:
        if (action >= 128) end.destroy();
        break;
      default:
        if (action >= 128) peer.destroy();
        break;
    }
    --depth_;
  }

  bool is_complete(const PairEnd& from) { return peer_of(from).received() >= from.must_arrive(); }
  bool is_complete() { return is_complete(*ends_[0]) && is_complete(*ends_[1]); }

  // No more loss and no more trouble: what was sent and can arrive arrives, and then there is
  // peace.
  void leave_in_peace() {
    for (auto& armed : armed_) armed.clear();
    is_wired_ = false;
    if (is_tainted_ || ends_[0]->is_destroyed() || ends_[1]->is_destroyed()) return;
    run_.advance(static_cast<int64_t>(latest_ms_ - run_.now_ms()));
    int steps_without_progress = 0;
    while (!is_complete()) {
      const std::pair<unsigned, unsigned> before = {ends_[0]->last_received(),
                                                    ends_[1]->last_received()};
      quiet_step();
      const bool progress =
          before != std::make_pair(ends_[0]->last_received(), ends_[1]->last_received());
      steps_without_progress = progress ? 0 : steps_without_progress + 1;
      FUZZ_CHECK(steps_without_progress < kStepsToProgress);
    }
    for (const auto& end : ends_) FUZZ_CHECK(peer_of(*end).received() >= end->must_arrive());
    check_silence();
  }

  void quiet_step() {
    run_.advance(kResendStepMs);
    run_.turn();
    for (const auto& end : ends_) deliver_all(*end);
  }

  bool gives_feedback(const PairEnd& end) const {
    return mtu_[end.side()] >= 6 && rtx_ >= 1 && rtx_ <= 2000;
  }

  // What has been acknowledged is not sent again.
  void check_silence() {
    const unsigned enough = std::min(rtx_, 2000U) + 300;
    for (unsigned ms = 0; ms < enough; ms += kResendStepMs) quiet_step();
    size_t before[2];
    for (const auto& end : ends_) before[end->side()] = end->reliable_datagrams();
    for (int i = 0; i < kStepsToProgress; ++i) quiet_step();
    for (const auto& end : ends_) {
      if (!end->is_all_deliverable() || !gives_feedback(peer_of(*end))) continue;
      FUZZ_CHECK(end->reliable_datagrams() == before[end->side()]);
    }
  }

  FuzzInput& input_;
  LibraryRun run_;
  const unsigned rtx_;
  unsigned mtu_[2];
  std::unique_ptr<PairEnd> ends_[2];
  BadLink links_[2];               // by sender
  std::deque<unsigned> armed_[2];  // by the end that calls back
  bool is_wired_ = false;
  bool is_tainted_ = false;
  int depth_ = 0;
  size_t segments_[2] = {};
  size_t bytes_ = 0;
  int64_t elapsed_ms_ = 0;
  uint64_t latest_ms_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  Script(input).run();
  return 0;
}
