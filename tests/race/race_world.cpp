#include "tests/race/race_world.h"

#include <thread>

#include "tests/race/race_message.h"
#include "tests/support/session_fixture.h"

namespace tarn_test {
namespace {

constexpr size_t kLongestMessage = 3000;
constexpr size_t kLongestDatagram = 1000;
// These take long, or concern everybody.
constexpr unsigned kRareOneIn = 2000;
constexpr unsigned kDrainMs = 5;
constexpr int kSettleMs = 60000;

int destroy_own(char*, int, void* handle) {
  tarn_destroy(*static_cast<std::atomic<void*>*>(handle));
  return 0;
}

void count_line(int, const char*) {
  static std::atomic<int> lines{0};
  ++lines;
}

}  // namespace

// The pair in a slot, kept from losing its handles to others for as long as this lives.
class RaceWorld::Use {
 public:
  Use(RaceWorld& world, size_t slot) {
    // Under the lock: a pair that is in its slot is not yet waited for.
    const std::lock_guard<std::mutex> hold(world.all_guard_);
    pair_ = world.slots_[slot];
    if (pair_ != nullptr) ++pair_->users;
  }
  ~Use() {
    if (pair_ != nullptr) --pair_->users;
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  RacePair* get() const { return pair_; }

 private:
  RacePair* pair_;
};

RaceWorld::RaceWorld() {
  for (size_t slot = 0; slot < kPairs; ++slot) replace(slot);
}

// Puts a new pair into the slot; returns the old one, for the caller alone.
RacePair* RaceWorld::replace(size_t slot) {
  RacePair* pair = nullptr;
  {
    const std::lock_guard<std::mutex> hold(all_guard_);
    const auto number = static_cast<uint32_t>(all_.size());
    all_.push_back(std::make_unique<RacePair>(number, slot % 2 != 0, verdict_));
    pair = all_.back().get();
  }
  {
    const std::unique_lock<std::shared_mutex> hold(handles_change_);
    pair->create();
  }
  pair->connect();
  const std::lock_guard<std::mutex> hold(all_guard_);
  return slots_[slot].exchange(pair);
}

// Other threads may still be inside the pair's sessions.
void RaceWorld::retire(RacePair* pair, std::mt19937& random) {
  destroy_sessions(*pair, random);
  pair->disconnect();
}

void RaceWorld::destroy_sessions(RacePair& pair, std::mt19937& random) {
  const std::shared_lock<std::shared_mutex> hold(handles_change_);
  for (size_t i = 0; i < 2; ++i) {
    void* const handle = pair.end(i).handle();
    const bool waits = random() % 4 == 0;
    const int result = waits ? tarn_wait_destroy(handle, kDrainMs) : tarn_destroy(handle);
    if (result != 0) verdict_.wrong("a live session that cannot be destroyed");
    if (random() % 2 == 0) tarn_destroy(handle);
  }
  while (pair.users != 0) std::this_thread::yield();
}

// Beside the pairs' creation, which this does not wait for; it is destroyed inside its own
// callback.
void RaceWorld::create_and_destroy_alone() {
  std::atomic<void*>& handle = *new std::atomic<void*>(tarn_create());
  static std::mutex guard;
  static std::vector<std::unique_ptr<std::atomic<void*>>> kept;
  {
    const std::lock_guard<std::mutex> hold(guard);
    kept.emplace_back(&handle);
  }
  const std::shared_lock<std::shared_mutex> hold(handles_change_);
  tarn_set_output_callback(handle, destroy_own, &handle);
  char message[] = "message";
  tarn_send_reliable(handle, message, sizeof message);
}

void RaceWorld::change_settings(std::mt19937& random) {
  const auto number = static_cast<unsigned>(random());
  switch (number % 8) {
    case 0:
      return tarn_config_mtu(500 + number % 900);
    case 1:
      return tarn_config_rtx_timeout(5 + number % 50);
    case 2:
      return tarn_config_active_timeout(1000 + number % 5000);
    case 3:
      return tarn_config_send_window_size(4096 + number % 4096);
    case 4:
      return tarn_config_recv_window_size(4096 + number % 4096);
    case 5:
      return tarn_config_thread_safe(number % 16 < 8);
    case 6:
      return tarn_set_log_callback2(number % 16 < 8 ? 2 : 0, count_line);
    default:
      return tarn_update();
  }
}

void RaceWorld::act(uint32_t thread, std::mt19937& random) {
  const size_t slot = random() % kPairs;
  const unsigned rare = random() % kRareOneIn;
  if (rare == 0) return retire(replace(slot), random);
  if (rare == 1) return create_and_destroy_alone();
  if (rare < 10) return change_settings(random);
  const Use use(*this, slot);
  act_on(*use.get(), thread, random);
}

void RaceWorld::act_on(RacePair& pair, uint32_t thread, std::mt19937& random) {
  RaceEnd& end = pair.end(random() % 2);
  const size_t small = kSmallestMessage + random() % kLongestDatagram;
  switch (random() % 16) {
    case 0:
    case 1:
      return end.send_reliable(thread, kSmallestMessage + random() % kLongestMessage);
    case 2:
    case 3:
    case 4:
      return end.send_reliable(thread, small);
    case 5:
      return end.send_unreliable(thread, small, false);
    case 6:
      return end.send_unreliable(thread, small, true);
    case 7:
      return end.set_callbacks(random() % 2);
    case 8:
      return tarn_set_conv(end.handle(), static_cast<unsigned>(random() % 100));
    case 9:
      tarn_get_conv(end.handle());
      return tarn_update();
    case 10:
      return pair.is_controlled() ? control(end, random) : end.feed();
    default:
      return end.feed();
  }
}

void RaceWorld::control(RaceEnd& end, std::mt19937& random) {
  switch (random() % 4) {
    case 0:
      return end.pause(true);
    case 1:
      return end.change_option(static_cast<unsigned>(random()));
    case 2:
      return end.look_at_stats();
    default:
      return end.pause(false);
  }
}

bool RaceWorld::settle_everything() {
  for (auto& slot : slots_) {
    RacePair* const pair = slot;
    for (size_t i = 0; pair->is_controlled() && i < 2; ++i) pair->end(i).pause(false);
    const bool settled = wait_until(
        [pair] {
          for (size_t i = 0; i < 2; ++i) pair->end(i).feed();
          return pair->everything_arrived();
        },
        kSettleMs);
    if (!settled) return false;
  }
  return true;
}

bool RaceWorld::destroy_everything() {
  std::mt19937 random(1);
  for (auto& slot : slots_) retire(slot, random);
  settle();
  const std::lock_guard<std::mutex> hold(all_guard_);
  for (const auto& pair : all_) {
    for (size_t i = 0; i < 2; ++i) {
      if (tarn_destroy(pair->end(i).handle()) != -1) return false;
    }
  }
  return true;
}

uint64_t RaceWorld::sent() const {
  const std::lock_guard<std::mutex> hold(all_guard_);
  uint64_t sum = 0;
  for (const auto& pair : all_) sum += pair->end(0).sent() + pair->end(1).sent();
  return sum;
}

uint64_t RaceWorld::received() const {
  const std::lock_guard<std::mutex> hold(all_guard_);
  uint64_t sum = 0;
  for (const auto& pair : all_) sum += pair->end(0).received() + pair->end(1).received();
  return sum;
}

size_t RaceWorld::inconsistent() const {
  const std::lock_guard<std::mutex> hold(all_guard_);
  size_t count = 0;
  for (const auto& pair : all_) {
    for (size_t i = 0; i < 2; ++i) count += pair->end(i).received() > pair->end(1 - i).sent();
  }
  return count;
}

size_t RaceWorld::pairs() const {
  const std::lock_guard<std::mutex> hold(all_guard_);
  return all_.size();
}

}  // namespace tarn_test
