// Two sessions under control and everything that may happen between them: options with any value,
// senders that are refused and told, readers that pause, a link that mistreats, datagrams that
// nobody sent. In the end what was taken arrives, if nobody has lied, and each counter is what was
// seen.
#include <deque>
#include <memory>
#include <string>
#include <utility>

#include "tests/fuzz/support/bad_link.h"
#include "tests/fuzz/support/controlled_end.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/fuzz_input.h"
#include "tests/fuzz/support/library_run.h"

namespace {

using tarn_fuzz::BadLink;
using tarn_fuzz::ControlledEnd;
using tarn_fuzz::FuzzInput;
using tarn_fuzz::LibraryRun;

// What bounds the work of one run.
constexpr size_t kMaxBytes = 100'000;  // of all messages
constexpr size_t kMaxSegments = 500;
constexpr int64_t kMaxElapsedMs = 12'000;
constexpr int kMaxDepth = 8;  // of callbacks that call back

constexpr int kResendStepMs = 30;
// What is out goes again every 120 ms, and what waits for it has the cycle's 50 to wait as well.
constexpr int kStepsToProgress = 12;
constexpr long long kLeastFeedback = 6;  // an mtu that has room for it

class Script {
 public:
  explicit Script(FuzzInput& input) : input_(input), run_(1'000'000) {
    for (unsigned side = 0; side < 2; ++side) {
      ends_[side] = std::make_unique<ControlledEnd>(
          side, ControlledEnd::Hooks{
                    [this](ControlledEnd& from, std::string datagram) { carry(from, datagram); },
                    [this](ControlledEnd& end) { call_back(end); }});
    }
    ends_[0]->meet(*ends_[1]);
    ends_[1]->meet(*ends_[0]);
    run_.turn();
  }

  void run() {
    while (!input_.empty()) {
      step();
      for (const auto& end : ends_) end->check_stats();
    }
    leave_in_peace();
    for (const auto& end : ends_) end->destroy();
    run_.turn();
    for (const auto& end : ends_) FUZZ_CHECK(!tarn_fuzz::is_registered(end->handle()));
  }

 private:
  ControlledEnd& draw_end() { return *ends_[input_.below(2)]; }
  ControlledEnd& peer_of(const ControlledEnd& end) { return *ends_[1 - end.side()]; }
  BadLink& sent_by(const ControlledEnd& end) { return links_[end.side()]; }

  void step() {
    ControlledEnd& end = draw_end();
    switch (input_.below(16)) {
      case 0:
      case 1:
        try_send(end, input_.u8());
        break;
      case 2:
        try_send(end, input_.u16());
        break;
      case 3:
        send(end, input_.u8());
        break;
      case 4:
        send_unreliable(end, input_.u8());
        break;
      case 5:
        end.pause(input_.flag());
        break;
      case 6:
        set_option(end);
        break;
      case 7:
        end.set_profile(static_cast<int>(input_.below(TARN_PROFILE_BULK + 1)));
        break;
      case 8:
        deliver_at(end, input_.u8());
        break;
      case 9:
      case 10:
        deliver_all(end);
        break;
      case 11:
        mistreat(end);
        break;
      case 12:
        lie(end);
        break;
      case 13:
        advance(input_.u8() * 2);
        break;
      case 14:
        armed_[end.side()].push_back(input_.u8());
        break;
      default:
        do_rarely(end);
        break;
    }
  }

  void do_rarely(ControlledEnd& end) {
    switch (input_.below(8)) {
      case 0:
        end.listen(input_.flag());
        break;
      case 1:
        is_wired_ = input_.flag();
        break;
      case 2:
        tarn_set_conv(end.handle(), input_.u8());
        is_tainted_ = true;  // datagrams that keep to another one may be dropped
        break;
      case 3:
        end.destroy();
        break;
      case 4:
        run_.log_at(static_cast<int>(input_.below(6)));
        break;
      default:
        advance(input_.u16() % 8192);
        break;
    }
  }

  // Any option and any value; those that make sense more often.
  void set_option(ControlledEnd& end) {
    const int option = static_cast<int>(input_.below(TARN_OPTION_COALESCE_MS + 4));
    long long value = 0;
    switch (input_.below(4)) {
      case 0:
        value = static_cast<long long>(input_.u8()) - 2;
        break;
      case 1:
        value = input_.u16();
        break;
      case 2:
        value = static_cast<int32_t>(input_.u32());
        break;
      default: {
        const uint64_t high = input_.u32();
        value = static_cast<long long>(high << 32 | input_.u32());
        break;
      }
    }
    end.set(option, value);
  }

  bool takes(const ControlledEnd& end, size_t size) {
    const size_t mtu = end.is_destroyed() ? 1 : static_cast<size_t>(end.get(TARN_OPTION_MTU)) + 1;
    const size_t segments = size / mtu + 1;
    if (bytes_ + size > kMaxBytes || segments_ + segments > kMaxSegments) return false;
    bytes_ += size;
    segments_ += segments;
    return true;
  }
  void try_send(ControlledEnd& end, size_t size) {
    if (takes(end, size)) end.try_send(size);
  }
  // Nothing of what follows an empty message is delivered.
  void send(ControlledEnd& end, size_t size) {
    if (size > 0 && takes(end, size)) end.send(size);
  }
  void send_unreliable(ControlledEnd& end, size_t size) {
    if (takes(end, size)) end.send_unreliable(size);
  }

  // The link, or two ends wired to each other.
  void carry(ControlledEnd& from, const std::string& datagram) {
    if (!is_wired_ || depth_ >= kMaxDepth) {
      sent_by(from).put(datagram);
      return;
    }
    ++depth_;
    peer_of(from).input(datagram);
    --depth_;
  }

  void deliver_at(ControlledEnd& to, size_t index) {
    BadLink& link = sent_by(peer_of(to));
    if (link.size() > 0) to.input(link.take(index));
  }
  void deliver_all(ControlledEnd& to) {
    for (size_t count = sent_by(peer_of(to)).size(); count > 0; --count) deliver_at(to, 0);
  }

  void mistreat(ControlledEnd& from) {
    if (sent_by(from).mistreat(input_)) distrust();
  }

  // A datagram that nobody sent.
  void lie(ControlledEnd& to) {
    distrust();
    std::string datagram = input_.flag() ? std::string("$\0", 2) : std::string();
    to.input(datagram += input_.bytes(input_.u8()));
  }

  void distrust() {
    for (const auto& end : ends_) end->distrust();
    is_tainted_ = true;
  }

  void advance(int64_t ms) {
    if (elapsed_ms_ + ms > kMaxElapsedMs) return;
    elapsed_ms_ += ms;
    run_.advance(ms);
    run_.turn();
  }

  // What has been armed for this end happens inside its next callback.
  void call_back(ControlledEnd& end) {
    std::deque<unsigned>& armed = armed_[end.side()];
    if (armed.empty() || depth_ >= kMaxDepth) return;
    const unsigned action = armed.front();
    armed.pop_front();
    ++depth_;
    ControlledEnd& peer = peer_of(end);
    switch (action % 10) {
      case 0:
        try_send(end, action);
        break;
      case 1:
        try_send(peer, action * 16);
        break;
      case 2:
        send(end, action);
        break;
      case 3:
        end.pause(action >= 128);
        break;
      case 4:
        peer.pause(action >= 128);
        break;
      case 5:
        deliver_at(end, action);
        break;
      case 6:
        deliver_at(peer, action);
        break;
      case 7:
        end.set(TARN_OPTION_SEND_WINDOW, action / 8);
        break;
      case 8:
        end.set(TARN_OPTION_SEND_QUEUE, action * 8);
        break;
      default:
        if (action >= 200) end.destroy();
        break;
    }
    --depth_;
  }

  bool is_disturbed() const {
    for (const auto& end : ends_) {
      if (end->is_destroyed() || end->is_too_large() ||
          end->get(TARN_OPTION_MTU) < kLeastFeedback) {
        return true;
      }
    }
    return is_tainted_;
  }

  bool is_complete(ControlledEnd& from) { return peer_of(from).received() >= from.must_arrive(); }
  bool is_complete() { return is_complete(*ends_[0]) && is_complete(*ends_[1]); }

  // No more trouble: what was taken arrives and is acknowledged, and who waits is told.
  void leave_in_peace() {
    for (auto& armed : armed_) armed.clear();
    is_wired_ = false;
    for (const auto& end : ends_) end->pause(false);
    if (is_disturbed()) return;
    for (const auto& end : ends_) {
      end->set(TARN_OPTION_MAX_MESSAGE, 0);
      end->listen(true);
    }
    for (int steps = 0; !is_complete(); ++steps) {
      const size_t before = received();
      quiet_step();
      if (received() != before) steps = 0;
      FUZZ_CHECK(steps < kStepsToProgress * static_cast<int>(kMaxSegments));
      if (is_disturbed()) return;
    }
    if (ends_[0]->is_broken() || ends_[1]->is_broken()) return;
    for (int i = 0; i < kStepsToProgress; ++i) quiet_step();
    for (const auto& end : ends_) {
      end->check_stats();
      end->check_rest();
    }
  }

  size_t received() const { return ends_[0]->received() + ends_[1]->received(); }

  void quiet_step() {
    run_.advance(kResendStepMs);
    run_.turn();
    for (const auto& end : ends_) deliver_all(*end);
  }

  FuzzInput& input_;
  LibraryRun run_;
  std::unique_ptr<ControlledEnd> ends_[2];
  BadLink links_[2];               // by sender
  std::deque<unsigned> armed_[2];  // by the end that calls back
  bool is_wired_ = false;
  bool is_tainted_ = false;
  int depth_ = 0;
  size_t bytes_ = 0;
  size_t segments_ = 0;
  int64_t elapsed_ms_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  Script(input).run();
  return 0;
}
