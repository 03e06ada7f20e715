#ifndef TARN_TOOLS_CLOCK_H_
#define TARN_TOOLS_CLOCK_H_

#include <chrono>

namespace tarn_tool {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

inline double in_seconds(Clock::duration span) {
  return std::chrono::duration<double>(span).count();
}

}  // namespace tarn_tool

#endif  // TARN_TOOLS_CLOCK_H_
