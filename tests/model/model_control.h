// The rules of sessions under control, as plainly as they can be written down.
#ifndef TARN_TESTS_MODEL_MODEL_CONTROL_H_
#define TARN_TESTS_MODEL_MODEL_CONTROL_H_

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "tests/model/control_side.h"

namespace tarn_model {

// Numbers are counted on past 16 bits nowhere: sequences are short. Time stands still.
class ModelControl : public ControlSide {
 public:
  // `mtu`: of a session that sets none.
  explicit ModelControl(int64_t mtu) { options_[TARN_OPTION_MTU] = mtu; }

  Trace trace;

  // For who draws what comes next.
  uint64_t most_bytes() const;
  bool has_options() const { return has_options_; }
  uint16_t next() const { return next_; }
  const std::vector<uint16_t>& outstanding() const { return outstanding_; }
  uint16_t expected() const { return expected_; }
  int64_t option(TarnOption option) const;

 protected:
  int try_send(const std::string& message) override;
  void send(const std::string& message) override;
  void input(const std::string& datagram) override;
  void pause(bool on) override;
  int set_option(TarnOption option, int64_t value) override;
  void listen(bool on) override;
  ControlState state() override;
  void add(Event event) override { trace.push_back(std::move(event)); }

 private:
  struct Waiting {
    std::string rest;
    bool begun;
  };
  struct Segment {
    std::string payload;
    bool ends;
  };
  struct Withheld {
    std::string message;
    size_t segments;
  };
  struct Run {
    uint16_t first;
    size_t count;
    size_t kept;
  };

  // Sending.
  size_t mtu() const { return static_cast<size_t>(option(TARN_OPTION_MTU)); }
  size_t segments_of(size_t bytes) const { return (bytes + mtu() - 1) / mtu(); }
  uint64_t ahead() const;
  uint64_t span() const;
  uint64_t free_segments() const;
  uint64_t queued_bytes() const;
  uint64_t free_queue() const;
  uint64_t room() const;
  bool is_half_free() const;
  Run put(const std::string& message);
  Run put_past_limit(const std::string& message);
  void take_numbers(const Run& run);
  void emit_run(const std::string& message, const Run& run);
  void emit(uint16_t seq, unsigned flag, const std::string& payload);
  void drain();
  void tell();

  // Receiving.
  void got_acknowledgement(unsigned type, const std::string& body);
  void got_reliable(const std::string& body, unsigned flag);
  enum class Arrival { kNew, kRepeated, kRefused };
  Arrival take_in(uint16_t seq, const Segment& segment);
  Arrival take_in_turn(uint16_t seq, const Segment& segment);
  bool has_come(uint16_t seq) const;
  bool is_too_large(size_t size);
  void accept(const Segment& segment);
  void release();
  void complete(const std::string& message);
  size_t withheld_segments() const;
  void deliver(const std::string& message);
  void deliver_pending();
  bool leave_turn();

  std::map<int, int64_t> options_;
  bool has_options_ = false;
  bool has_sent_ = false;

  uint16_t next_ = 0;
  std::vector<uint16_t> outstanding_;  // ascending
  std::deque<Waiting> queue_;
  uint64_t smallest_refused_ = UINT64_MAX;
  bool is_listening_ = true;
  bool has_acknowledgements_ = false;  // not yet used
  bool is_draining_ = false;
  bool is_telling_ = false;
  uint64_t refused_ = 0;
  uint64_t sent_ = 0;
  uint64_t segments_sent_ = 0;

  uint16_t expected_ = 0;
  std::map<uint16_t, Segment> early_;
  std::string staged_;
  size_t staged_segments_ = 0;
  std::deque<Withheld> withheld_;
  bool is_paused_ = false;
  bool is_turn_taken_ = false;
  bool is_wanted_ = false;
  bool is_over_ = false;  // a message was too large
  uint64_t repeated_ = 0;
  uint64_t rejected_ = 0;
};

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_MODEL_CONTROL_H_
