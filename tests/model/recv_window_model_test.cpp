// RecvWindow and the building of feedback beside their models.
#include <list>

#include "src/recv_window.h"
#include "tarn/tarn.h"
#include "tests/model/campaign.h"
#include "tests/model/library_log.h"
#include "tests/model/model_feedback.h"
#include "tests/model/model_recv_window.h"
#include "tests/model/recv_window_ops.h"
#include "tests/support/kit_bytes.h"

namespace tarn_model {
namespace {

constexpr uint32_t kDefaultLimit = 32;
constexpr uint64_t kOpsPerFill = 20'000;  // on average

class LibraryRecvWindow : public RecvSide {
 public:
  LibraryRecvWindow() {
    tarn_config_recv_window_size(kDefaultLimit);
    LibraryLog::set_name(&window_, sizeof window_, kWindow);
    LibraryLog::take();
  }

 private:
  bool input(uint16_t seq, const std::string& payload, unsigned flag, bool lent) override {
    std::string bytes = payload;
    Block block(bytes.data(), bytes.size());
    DataView view = lent ? DataView::lend(block) : DataView(bytes.data(), bytes.size());
    const bool taken = window_.input(seq, view, static_cast<unsigned char>(flag));
    // What the caller does with its datagram afterwards must not matter.
    for (char& byte : bytes) byte = '!';
    return taken;
  }
  void output(uint16_t seq, const std::string& payload, bool last) override {
    Packet packet = packet_of(seq, payload, last);
    window_.output(packet);
  }
  void output(uint16_t seq, const std::string& message) override {
    DataView view = tarn_test::owned_view(message);
    window_.output(seq, view);
  }
  bool write_to_buffer(uint16_t seq, const std::string& payload, bool last) override {
    Packet packet = packet_of(seq, payload, last);
    return window_.write_to_buffer(packet);
  }
  void release_buffer() override { window_.try_release_buffer(); }
  bool take_una(uint16_t& una) override { return window_.get_una(una); }
  bool take_acks(std::vector<uint16_t>& acks, uint64_t max) override {
    std::list<unsigned short> list;
    const bool any = window_.get_ack(list, max);
    acks.assign(list.begin(), list.end());
    return any;
  }
  bool take_all_acks(std::vector<uint16_t>& acks) override {
    std::list<unsigned short> list;
    const bool any = window_.get_ack(list);
    acks.assign(list.begin(), list.end());
    return any;
  }
  std::string take_feedback(uint64_t budget) override {
    Feedback feedback;
    window_.take_feedback(budget, feedback);
    std::string bytes(feedback.una_size() + feedback.ack_size(), '?');
    if (feedback.has_una) feedback.put_una(bytes.data());
    if (feedback.has_acks) feedback.put_acks(bytes.data() + feedback.una_size());
    return bytes;
  }
  bool has_feedback() override { return window_.has_feedback(); }
  void set_limit(uint32_t packets) override { tarn_config_recv_window_size(packets); }
  void set_callback(bool set) override {
    window_.set_output_callback(set ? oxutils::Function(this, &LibraryRecvWindow::on_message)
                                    : oxutils::Function());
  }
  void add(Event event) override { LibraryLog::add(std::move(event)); }

  static Packet packet_of(uint16_t seq, const std::string& payload, bool last) {
    return Packet{seq, tarn_test::owned_view(payload), static_cast<unsigned char>(last)};
  }
  void on_message(DataView message) { delivered(tarn_test::text_of(message)); }

  RecvWindow window_;
};

class ModelSide : public RecvSide {
 public:
  Trace trace;
  ModelRecvWindow window{trace};

 private:
  bool input(uint16_t seq, const std::string& payload, unsigned flag, bool) override {
    return window.input(seq, payload, flag, limit_);
  }
  void output(uint16_t seq, const std::string& payload, bool last) override {
    window.output({seq, payload, last});
  }
  void output(uint16_t seq, const std::string& message) override { window.output(seq, message); }
  bool write_to_buffer(uint16_t seq, const std::string& payload, bool last) override {
    return window.write_to_buffer({seq, payload, last}, limit_);
  }
  void release_buffer() override { window.release_buffer(); }
  bool take_una(uint16_t& una) override { return window.take_una(una); }
  bool take_acks(std::vector<uint16_t>& acks, uint64_t max) override {
    return window.take_acks(acks, max);
  }
  bool take_all_acks(std::vector<uint16_t>& acks) override {
    return window.take_acks(acks, window.acks().size());
  }
  std::string take_feedback(uint64_t budget) override {
    const ModelFeedback feedback = tarn_model::take_feedback(window, budget, nullptr);
    return feedback.una + feedback.acks;
  }
  bool has_feedback() override { return window.has_feedback(); }
  void set_limit(uint32_t packets) override { limit_ = packets; }
  void set_callback(bool set) override {
    if (!set) return window.set_output_callback(nullptr);
    window.set_output_callback([this](const std::string& message) { delivered(message); });
  }
  void add(Event event) override { trace.push_back(std::move(event)); }

  uint32_t limit_ = kDefaultLimit;
};

class RecvPair {
 public:
  using Op = RecvOp;

  Op draw(Random& random) {
    if (fresh_) {
      planned_ = draw_recv_start(random);
    } else if (drawn_ == planned_.size() && random.below(kOpsPerFill) == 0) {
      planned_ = draw_recv_fill(random, model_.window);
      drawn_ = 0;
    }
    fresh_ = false;
    return drawn_ < planned_.size() ? planned_[drawn_++] : draw_recv_op(random, model_.window);
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
  LibraryRecvWindow library_;
  bool fresh_ = true;
  std::vector<RecvOp> planned_;
  size_t drawn_ = 0;  // of these
};

TEST(RecvWindowModel, AgreesWithTheLibraryStepByStep) {
  const LibraryLog log;
  run_campaign<RecvPair>(300'000);
}

}  // namespace
}  // namespace tarn_model
