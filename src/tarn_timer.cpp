#include "src/tarn_timer.h"

#include <utility>

#include "oxutils/assert.h"

TimerInteger TarnTimer::s_idCreated_;

TarnTimer::TarnTimer(int id, oxutils::Function func, unsigned int expiration, int interval)
    : expiration_(expiration),
      interval_(interval),
      repeat_(interval > 0),
      id_(id),
      func_(std::move(func)) {}

TarnTimer::TarnTimer(oxutils::Function func, unsigned int expiration, int interval)
    : TarnTimer(static_cast<int>(s_idCreated_.add()), std::move(func), expiration, interval) {}

oxutils::shared_ptr<TarnTimer> TarnTimer::create_timer(int id, oxutils::Function func,
                                                       int expiration, int interval) {
  return oxutils::make_shared<TarnTimer>(id, std::move(func), static_cast<unsigned int>(expiration),
                                         interval);
}

oxutils::shared_ptr<TarnTimer> TarnTimer::create_timer(oxutils::Function func, int expiration,
                                                       int interval) {
  return oxutils::make_shared<TarnTimer>(std::move(func), static_cast<unsigned int>(expiration),
                                         interval);
}

void TarnTimer::restart() {
  expiration_ = repeat_ ? expiration_ + static_cast<unsigned int>(interval_) : 0;
}

void TarnTimer::run() {
  const oxutils::scoped_lock hold(mutex_);
  if (removed_) return;
  OX_ASSERT("src/tarn_timer", 76, func_);
  func_();
}

void TarnTimer::remove() {
  const oxutils::scoped_lock hold(mutex_);
  removed_ = true;
}
