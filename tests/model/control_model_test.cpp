// A session under control, through the C interface and with the clock stopped, beside its model.
#include "tarn/control.h"
#include "tests/model/campaign.h"
#include "tests/model/model_control.h"
#include "tests/model/model_feedback.h"
#include "tests/support/kit_worker.h"
#include "tests/support/session_fixture.h"
#include "tests/support/virtual_clock.h"

namespace tarn_model {
namespace {

constexpr unsigned int kMtu = 4;  // too small for feedback beside data: that is another model's

class LibraryControl : public ControlSide {
 public:
  LibraryControl() {
    tarn_test::restore_default_settings();
    tarn_config_mtu(kMtu);
    handle_ = tarn_create();
    tarn_set_output_callback(handle_, on_datagram, this);
    tarn_set_recv_reliable_callback(handle_, on_reliable, this);
    tarn_set_error_callback(handle_, on_error, this);
    listen(true);
  }
  ~LibraryControl() override {
    tarn_destroy(handle_);
    tarn_test::worker_turn();
    tarn_test::restore_default_settings();
  }

  Trace trace;

 private:
  int try_send(const std::string& message) override {
    return tarn_try_send_reliable(handle_, message.data(), message.size());
  }
  void send(const std::string& message) override {
    std::string bytes = message;
    tarn_send_reliable(handle_, bytes.data(), static_cast<int>(bytes.size()));
  }
  void input(const std::string& datagram) override {
    std::string bytes = datagram;
    tarn_input(handle_, bytes.data(), static_cast<int>(bytes.size()));
  }
  void pause(bool on) override { EXPECT_EQ(tarn_pause_receive(handle_, on ? 1 : 0), 0); }
  int set_option(TarnOption option, int64_t value) override {
    return tarn_set_option(handle_, option, value);
  }
  void listen(bool on) override {
    EXPECT_EQ(tarn_set_writable_callback(handle_, on ? on_writable : nullptr, this), 0);
  }
  ControlState state() override {
    TarnStats stats;
    EXPECT_EQ(tarn_get_stats(handle_, &stats, sizeof stats), 0);
    ControlState now;
    now.room = tarn_send_room(handle_);
    now.outstanding = stats.outstanding_segments;
    now.queued_messages = stats.queued_messages;
    now.queued_bytes = stats.queued_bytes;
    now.buffered = stats.buffered_segments;
    now.refused = stats.messages_refused;
    now.sent = stats.messages_sent;
    now.segments_sent = stats.segments_sent;
    now.repeated = stats.segments_repeated;
    now.rejected = stats.segments_rejected;
    return now;
  }
  void add(Event event) override { trace.push_back(std::move(event)); }

  // Header, one reliable segment and nothing else.
  static int on_datagram(char* data, int size, void* self) {
    const std::string datagram(data, static_cast<size_t>(size));
    EXPECT_GE(datagram.size(), 8u);
    const auto flag = static_cast<unsigned>(datagram[2]);
    EXPECT_EQ(flag / 4, 0u);
    const int64_t seq =
        static_cast<unsigned char>(datagram[5]) * 256 + static_cast<unsigned char>(datagram[6]);
    static_cast<LibraryControl*>(self)->happened(What::kDatagram, seq,
                                                 std::to_string(flag % 4) + datagram.substr(7));
    return 0;
  }
  static int on_reliable(char* data, int size, void* self) {
    static_cast<LibraryControl*>(self)->happened(What::kReliable, 0,
                                                 std::string(data, static_cast<size_t>(size)));
    return 0;
  }
  static int on_error(TarnError code, void* self) {
    static_cast<LibraryControl*>(self)->happened(What::kError, code, "");
    return 0;
  }
  static void on_writable(void*, void* self) {
    static_cast<LibraryControl*>(self)->happened(What::kResend, 0, "");
  }

  void* handle_ = nullptr;
};

ControlOp number_op(ControlOp::Kind kind, int64_t number) {
  ControlOp op;
  op.kind = kind;
  op.number = number;
  return op;
}

// One that may be out, or lately was.
uint64_t draw_number(Random& random, const ModelControl& model) {
  const auto& outstanding = model.outstanding();
  if (outstanding.empty()) return model.next() == 0 ? 0 : model.next() - 1u;
  return outstanding[random.below(outstanding.size())];
}

std::string draw_feedback(Random& random, const ModelControl& model) {
  if (random.chance(50)) {
    std::string acks;
    for (uint64_t i = random.between(1, 3); i > 0; --i) {
      acks += uint16_bytes(random.chance(90) ? draw_number(random, model) : random.below(100));
    }
    return segment_bytes(2, 3, acks);
  }
  if (model.next() == 0) return std::string();
  const bool is_wild = random.chance(10);
  return segment_bytes(3, 3,
                       uint16_bytes(is_wild ? random.below(65536) : draw_number(random, model)));
}

std::string draw_data(Random& random, const ModelControl& model) {
  uint64_t seq = model.expected();
  const uint64_t dice = random.below(100);
  if (dice < 40) seq += random.below(6);
  if (dice >= 40 && dice < 50 && seq > 0) seq -= random.between(1, std::min<uint64_t>(seq, 4));
  if (dice == 99 && model.has_options()) seq += random.between(8180, 8200);
  return segment_bytes(0, static_cast<unsigned>(random.below(4)),
                       uint16_bytes(seq) + random.bytes(random.between(1, 6)));
}

ControlOp draw_input(Random& random, const ModelControl& model) {
  ControlOp op;
  op.kind = ControlOp::kInput;
  op.bytes = std::string("$\0", 2);
  for (uint64_t i = random.between(1, 2); i > 0; --i) {
    op.bytes += random.chance(50) ? draw_feedback(random, model) : draw_data(random, model);
  }
  return op;
}

ControlOp draw_option(Random& random) {
  struct Choice {
    TarnOption option;
    int64_t values[4];
  };
  constexpr Choice kChoices[] = {
      {TARN_OPTION_MTU, {1, 3, 4, 5}},          {TARN_OPTION_SEND_WINDOW, {1, 2, 5, 40}},
      {TARN_OPTION_RECV_WINDOW, {1, 2, 5, 40}}, {TARN_OPTION_SEND_QUEUE, {0, 1, 20, 100}},
      {TARN_OPTION_PEER_WINDOW, {0, 1, 2, 7}},  {TARN_OPTION_MAX_MESSAGE, {0, 40, 100, 1000}},
      {TARN_OPTION_STRICT_CONV, {0, 0, 0, 0}},
  };
  const Choice choice = random.pick(kChoices);
  ControlOp op = number_op(ControlOp::kOption, random.pick(choice.values));
  op.option = choice.option;
  return op;
}

ControlOp draw_send(Random& random, const ModelControl& model) {
  const auto most = static_cast<int64_t>(std::min<uint64_t>(model.most_bytes() + 2, 300));
  int64_t size = static_cast<int64_t>(random.between(1, 12));
  if (random.chance(15)) size = static_cast<int64_t>(random.below(static_cast<uint64_t>(most) + 1));
  if (random.chance(90)) return number_op(ControlOp::kTrySend, size);
  return number_op(ControlOp::kSend, std::max<int64_t>(size, 1));
}

ControlOp draw_plain(Random& random, const ModelControl& model) {
  const uint64_t dice = random.below(100);
  if (dice < 45) return draw_send(random, model);
  if (dice < 80) return draw_input(random, model);
  if (dice < 90) return number_op(ControlOp::kPause, static_cast<int64_t>(random.below(2)));
  if (dice < 96) return draw_option(random);
  return number_op(ControlOp::kListen, random.chance(80) ? 1 : 0);
}

ControlOp draw_op(Random& random, const ModelControl& model) {
  constexpr What kWhats[] = {What::kDatagram, What::kReliable, What::kError, What::kResend};
  if (random.chance(85)) return draw_plain(random, model);
  ControlOp op;
  op.kind = ControlOp::kArm;
  op.on = random.pick(kWhats);
  for (uint64_t i = random.between(1, 2); i > 0; --i) {
    op.inside.push_back(draw_plain(random, model));
  }
  return op;
}

class ControlPair {
 public:
  using Op = ControlOp;

  Op draw(Random& random) { return draw_op(random, model_); }

  std::string step(const Op& op) {
    model_.step(op);
    library_.step(op);
    Trace expected;
    Trace actual;
    expected.swap(model_.trace);
    actual.swap(library_.trace);
    return difference(expected, actual);
  }

  bool left_the_rules() const { return false; }

 private:
  tarn_test::VirtualClock clock_;
  ModelControl model_{kMtu};
  LibraryControl library_;
};

TEST(ControlModel, AgreesWithTheLibraryStepByStep) {
  const tarn_test::RunningWorker worker;
  run_campaign<ControlPair>(100'000);
}

}  // namespace
}  // namespace tarn_model
