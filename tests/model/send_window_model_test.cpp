// SendWindow beside its model.
#include <memory>
#include <utility>

#include "src/send_window.h"
#include "tarn/tarn.h"
#include "tests/model/campaign.h"
#include "tests/model/library_log.h"
#include "tests/model/model_send_window.h"
#include "tests/model/send_window_ops.h"
#include "tests/support/kit_bytes.h"
#include "tests/support/kit_worker.h"
#include "tests/support/virtual_clock.h"

namespace tarn_model {
namespace {

constexpr uint32_t kDefaultLimit = 32;

class LibrarySendWindow : public SendSide {
 public:
  LibrarySendWindow() {
    tarn_config_send_window_size(kDefaultLimit);
    LibraryLog::set_name(window_.get(), 1, kWindow);
    LibraryLog::take();
  }

 private:
  bool write(uint16_t seq, const std::string& packet) override {
    std::string lent = packet;
    DataView view(lent.data(), lent.size());
    const bool kept = window_->write(seq, view);
    // What the caller does with its bytes afterwards must not matter.
    for (char& byte : lent) byte = '!';
    return kept;
  }
  bool give_away(uint16_t seq, const std::string& packet) override {
    SegmentNode segment = window_->pool().take(packet.size());
    packet.copy(segment.mapped().data(), packet.size());
    return window_->write(seq, std::move(segment));
  }
  void ack(uint16_t seq) override { window_->ack(seq); }
  void una(uint16_t una) override { window_->una(una); }
  // With the clock stopped, the window's own timer is never due.
  void pass() override { window_->resend(); }
  void set_limit(uint32_t packets) override { tarn_config_send_window_size(packets); }
  void set_callback(bool set) override {
    window_->set_resend_callback(set ? oxutils::Function(this, &LibrarySendWindow::on_resend)
                                     : oxutils::Function());
  }
  unsigned count() override { return window_->count(); }
  void add(Event event) override { LibraryLog::add(std::move(event)); }

  void on_resend(unsigned short seq, DataView packet, bool* keep) {
    if (!*keep) add({What::kResult, -1, "keep is false"});
    resent(seq, tarn_test::text_of(packet));
  }

  tarn_test::TestWindow window_;
};

class ModelSide : public SendSide {
 public:
  Trace trace;
  ModelSendWindow window{trace};

 private:
  bool write(uint16_t seq, const std::string& packet) override {
    return window.write(seq, packet, limit_);
  }
  bool give_away(uint16_t seq, const std::string& packet) override { return write(seq, packet); }
  void ack(uint16_t seq) override { window.ack(seq); }
  void una(uint16_t una) override { window.una(una); }
  void pass() override { window.pass(); }
  void set_limit(uint32_t packets) override { limit_ = packets; }
  void set_callback(bool set) override {
    if (!set) return window.set_resend_callback(nullptr);
    window.set_resend_callback(
        [this](uint16_t seq, const std::string& packet) { resent(seq, packet); });
  }
  unsigned count() override { return window.count(); }
  void add(Event event) override { trace.push_back(std::move(event)); }

  uint32_t limit_ = kDefaultLimit;
};

class SendPair {
 public:
  using Op = SendOp;

  Op draw(Random& random) {
    if (first_) {
      first_ = false;
      constexpr uint16_t kStarts[] = {0, 65500, 65530, 32760, 12345};
      outlook_.next = random.pick(kStarts);
      Op op;
      op.kind = SendOp::kCallback;
      op.number = 1;
      return op;
    }
    outlook_.kept = model_.window.kept();
    return draw_send_op(random, outlook_);
  }

  std::string step(const Op& op) {
    model_.trace.clear();
    model_.apply(op);
    if (left_the_rules()) return std::string();
    library_.apply(op);
    return difference(model_.trace, LibraryLog::take());
  }

  bool left_the_rules() const { return model_.window.left_the_rules(); }

 private:
  ModelSide model_;
  LibrarySendWindow library_;
  SendOutlook outlook_;
  bool first_ = true;
};

TEST(SendWindowModel, AgreesWithTheLibraryStepByStep) {
  const tarn_test::VirtualClock clock;
  const LibraryLog log;
  run_campaign<SendPair>(500'000);
}

}  // namespace
}  // namespace tarn_model
