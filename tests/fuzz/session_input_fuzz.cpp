// One session fed with datagrams, whole, cut up and made up: what its callbacks are told, and in
// which order, against a second decoder and a model of the reliable channel; what it sends has to
// be well-formed and true.
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tarn/tarn.h"
#include "tests/fuzz/support/exact_copy.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/fuzz_input.h"
#include "tests/fuzz/support/library_run.h"
#include "tests/fuzz/support/plain_decoder.h"
#include "tests/fuzz/support/reliable_model.h"

namespace {

using tarn_fuzz::ExactCopy;
using tarn_fuzz::FuzzInput;
using tarn_fuzz::LibraryRun;
using tarn_fuzz::plain_uint16;
using tarn_fuzz::PlainDatagram;
using tarn_fuzz::PlainSegment;
using tarn_fuzz::ReliableModel;

enum SegmentType : unsigned { kReliable, kUnreliable, kAck, kUna, kBye, kHeartbeat, kConv };

enum class Kind { kReliable, kUnreliable, kError };

struct Event {
  Kind kind;
  std::string bytes;  // or, of an error, nothing
  int code = 0;
};

class Script {
 public:
  explicit Script(FuzzInput& input) : input_(input), run_(1'000'000 + input.u16()) {
    if (input_.flag()) run_.log_at(5);
    tarn_config_recv_window_size(limit_ = input_.u8());
    tarn_config_mtu(mtu_ = input_.u16());
    session_ = tarn_create();
    FUZZ_CHECK(session_ != nullptr);
    set_callbacks();
    run_.turn();  // files its timers
  }

  void run() {
    while (!input_.empty()) step();
    destroy();
    run_.turn();
    FUZZ_CHECK(!tarn_fuzz::is_registered(session_));
  }

 private:
  void set_callbacks() {
    tarn_set_output_callback(session_, &Script::on_output, this);
    tarn_set_recv_reliable_callback(session_, &Script::on_reliable, this);
    tarn_set_recv_unreliable_callback(session_, &Script::on_unreliable, this);
    tarn_set_error_callback(session_, &Script::on_error, this);
  }

  // The first byte of a step: that many raw bytes, or some segments, or something else than input.
  void step() {
    constexpr unsigned kFirstComposed = 160;
    constexpr unsigned kFirstOther = 224;
    const unsigned kind = input_.u8();
    if (kind < kFirstComposed) {
      feed(input_.bytes(kind));
    } else if (kind < kFirstOther) {
      feed(compose(1 + (kind - kFirstComposed) % 8));
    } else {
      do_other(kind - kFirstOther);
    }
  }

  void do_other(unsigned kind) {
    switch (kind % 10) {
      case 0:
        run_.advance(input_.u8());
        run_.turn();
        break;
      case 1:
        run_.advance(input_.u16() / 8);
        if (input_.flag()) tarn_update();
        break;
      case 2:
        conv_ = input_.u32();
        tarn_set_conv(session_, conv_);
        break;
      case 3:
        tarn_config_recv_window_size(limit_ = input_.flag() ? input_.u8() : input_.u16());
        break;
      case 4:
        tarn_config_send_window_size(input_.u8());
        break;
      case 5:
        send_reliable(input_.bytes(input_.u8()));
        break;
      case 6:
        send_unreliable(input_.bytes(input_.u8()));
        break;
      case 7:
        send_unreliable_nocp(input_.bytes(input_.u8()));
        break;
      case 8:
        tarn_config_thread_safe(input_.flag());
        break;
      default:
        calls_left_ = 1 + static_cast<int>(input_.below(8));
        break;
    }
  }

  // A header and segments whose lengths are right, with numbers close to the one that is next.
  std::string compose(unsigned count) {
    std::string bytes("$\0", 2);
    for (unsigned i = 0; i < count; ++i) {
      const unsigned head = input_.u8();
      std::string body;
      if (head / 4 == kReliable || head / 4 == kUna) put_near_number(body);
      if (head / 4 != kUna) body += input_.bytes(input_.u8() % 64);
      bytes += static_cast<char>(head);
      put_uint16(bytes, static_cast<unsigned>(body.size()));
      bytes += body;
    }
    return bytes;
  }

  static void put_uint16(std::string& bytes, unsigned value) {
    bytes += static_cast<char>(value / 256);
    bytes += static_cast<char>(value);
  }

  void put_near_number(std::string& bytes) {
    const unsigned step = input_.u8();
    unsigned number = model_.next() + step % 16;
    if (step >= 200 && model_.has_started()) number = model_.next() + 65536 - step % 8;
    if (step >= 250) number = input_.u16();
    put_uint16(bytes, number % 65536);
  }

  // Works out what has to follow, then lets it happen.
  void feed(const std::string& bytes) {
    if (!is_destroyed_) expect(tarn_fuzz::decode(bytes));
    ExactCopy copy(bytes);
    fed_ = &copy;
    tarn_input(session_, copy.data(), copy.length());
    fed_ = nullptr;
    FUZZ_CHECK(expected_.empty());
    FUZZ_CHECK(is_destroyed_ || tarn_get_conv(session_) == conv_);
  }

  void expect(const PlainDatagram& datagram) {
    for (const PlainSegment& each : datagram.segments) {
      if (each.type == kReliable && each.body.size() > 2) expect_reliable(each);
      if (each.type == kUnreliable && !each.body.empty()) {
        expected_.push_back(Event{Kind::kUnreliable, each.body});
      }
      if (each.type == kBye) expected_.push_back(Event{Kind::kError, "", TARN_ERROR_BYE});
      if (each.type == kConv && each.body.size() >= 4 && conv_ == 0) {
        conv_ = plain_uint16(each.body, 0) * 65536U + plain_uint16(each.body, 2);
      }
    }
  }

  void expect_reliable(const PlainSegment& segment) {
    const unsigned seq = plain_uint16(segment.body, 0);
    received_.insert(seq);
    const ReliableModel::Outcome outcome =
        model_.input(seq, segment.body.substr(2), segment.flag, limit_);
    for (const std::string& each : outcome.messages) {
      expected_.push_back(Event{Kind::kReliable, each});
    }
    if (outcome.is_refused) expected_.push_back(Event{Kind::kError, "", TARN_ERROR_RECV_REJECTED});
    if (!model_.is_exact()) forget_reliable();
  }

  // Nobody can say any more which early numbers wait; the rest stays as strict as it was.
  void forget_reliable() {
    std::deque<Event> others;
    for (const Event& each : expected_) {
      if (!is_of_reliable_channel(each)) others.push_back(each);
    }
    expected_.swap(others);
  }

  static bool is_of_reliable_channel(const Event& event) {
    return event.kind == Kind::kReliable || event.code == TARN_ERROR_RECV_REJECTED;
  }

  void check_event(const Event& event) {
    FUZZ_CHECK(!is_destroyed_);
    FUZZ_CHECK(fed_ != nullptr);
    if (!model_.is_exact() && is_of_reliable_channel(event)) return;
    FUZZ_CHECK(!expected_.empty());
    FUZZ_CHECK(expected_.front().kind == event.kind);
    FUZZ_CHECK(expected_.front().code == event.code);
    FUZZ_CHECK(expected_.front().bytes == event.bytes);
    expected_.pop_front();
  }

  void after_call() {
    if (calls_left_ > 0 && --calls_left_ == 0) destroy();
  }

  void destroy() {
    if (is_destroyed_) return;
    FUZZ_CHECK(tarn_destroy(session_) == 0);
    is_destroyed_ = true;
    expected_.clear();
  }

  void send_reliable(const std::string& bytes) {
    ExactCopy copy(bytes);
    in_send_ = true;
    if (mtu_ > 0) sent_bytes_ += bytes;
    tarn_send_reliable(session_, copy.data(), copy.length());
    in_send_ = false;
  }

  void send_unreliable(const std::string& bytes) {
    ExactCopy copy(bytes);
    unreliable_ = bytes;
    tarn_send_unreliable(session_, copy.data(), copy.length());
  }

  void send_unreliable_nocp(const std::string& bytes) {
    if (bytes.size() < 6) return;
    ExactCopy copy(std::string(12, 'x') + bytes);
    unreliable_ = bytes;
    tarn_send_unreliable_nocp(session_, copy.data(), copy.length() - 12);
  }

  void check_output(const std::string& bytes) {
    const PlainDatagram datagram = tarn_fuzz::decode(bytes);
    FUZZ_CHECK(bytes[0] == '$' && bytes[1] == '\0');
    FUZZ_CHECK(!datagram.is_cut_off && !datagram.segments.empty());
    size_t used = 2;
    for (const PlainSegment& each : datagram.segments) {
      used += 3 + each.body.size();
      check_sent_segment(each);
    }
    FUZZ_CHECK(used == bytes.size());
    FUZZ_CHECK(conv_ == 0 || datagram.segments.front().type == kConv);
  }

  void check_sent_segment(const PlainSegment& segment) {
    FUZZ_CHECK(segment.type == kReliable || segment.flag == 3);
    switch (segment.type) {
      case kReliable:
        check_sent_reliable(segment);
        break;
      case kUnreliable:
        FUZZ_CHECK(segment.body == unreliable_);
        break;
      case kAck:
        for (size_t at = 0; at < segment.body.size(); at += 2) {
          check_ack(plain_uint16(segment.body, at));
        }
        break;
      case kUna:
        check_una(plain_uint16(segment.body, 0));
        break;
      default:
        FUZZ_CHECK(segment.type == kConv);
        break;
    }
  }

  // Nothing is acknowledged that has not come, nor on its own what is in order by now.
  void check_ack(unsigned seq) {
    FUZZ_CHECK(received_.count(seq) == 1);
    FUZZ_CHECK(!model_.is_exact() || model_.waits(seq));
  }

  void check_una(unsigned una) {
    FUZZ_CHECK(received_.count(una) == 1);
    FUZZ_CHECK(!model_.is_exact() || (model_.has_started() && una == model_.last()));
  }

  // Sent first in the order of the numbers, and never again with anything else in it.
  void check_sent_reliable(const PlainSegment& segment) {
    FUZZ_CHECK(segment.body.size() >= 2);
    const unsigned seq = plain_uint16(segment.body, 0);
    const std::string payload = segment.body.substr(2);
    FUZZ_CHECK(payload.size() <= mtu_);
    if (seq == sent_.size()) {
      FUZZ_CHECK(in_send_);
      FUZZ_CHECK(sent_bytes_.compare(0, payload.size(), payload) == 0);
      sent_bytes_.erase(0, payload.size());
      sent_.push_back(payload);
    }
    FUZZ_CHECK(seq < sent_.size() && sent_[seq] == payload);
  }

  static Script& self(void* user) { return *static_cast<Script*>(user); }

  static int on_output(char* data, int len, void* user) {
    FUZZ_CHECK(len > 2);
    FUZZ_CHECK(!self(user).is_destroyed_ && self(user).fed_ == nullptr);
    self(user).check_output(std::string(data, static_cast<size_t>(len)));
    self(user).after_call();
    return 0;
  }

  static int on_reliable(char* data, int len, void* user) {
    FUZZ_CHECK(len > 0);
    self(user).check_event(Event{Kind::kReliable, std::string(data, static_cast<size_t>(len))});
    self(user).after_call();
    return -1;
  }

  static int on_unreliable(char* data, int len, void* user) {
    FUZZ_CHECK(len > 0);
    FUZZ_CHECK(self(user).fed_ != nullptr);
    FUZZ_CHECK(self(user).fed_->holds(data, static_cast<size_t>(len)));
    self(user).check_event(Event{Kind::kUnreliable, std::string(data, static_cast<size_t>(len))});
    self(user).after_call();
    return -1;
  }

  static int on_error(TarnError code, void* user) {
    if (code == TARN_ERROR_SEND_OVERFLOW) {
      // The one call that may still come after the session's end, from inside the same send.
      FUZZ_CHECK(self(user).in_send_);
    } else if (code == TARN_ERROR_INACTIVE) {
      FUZZ_CHECK(self(user).fed_ == nullptr && !self(user).is_destroyed_);
    } else {
      self(user).check_event(Event{Kind::kError, "", code});
    }
    self(user).after_call();
    return 0;
  }

  FuzzInput& input_;
  LibraryRun run_;
  void* session_ = nullptr;
  unsigned limit_ = 0;
  unsigned mtu_ = 0;
  unsigned conv_ = 0;
  int calls_left_ = 0;  // until a callback destroys the session; 0: none does
  bool is_destroyed_ = false;

  ReliableModel model_;
  std::set<unsigned> received_;  // reliable numbers, refused ones too
  std::deque<Event> expected_;   // of the datagram that is being fed
  ExactCopy* fed_ = nullptr;

  bool in_send_ = false;
  std::string sent_bytes_;         // given to the session and not seen leaving yet
  std::vector<std::string> sent_;  // payloads by number
  std::string unreliable_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  Script(input).run();
  return 0;
}
