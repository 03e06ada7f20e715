#include "tools/progress.h"

#include <gtest/gtest.h>

using namespace tarn_tool;
using std::chrono::seconds;

TEST(Progress, BeginsWithoutARate) {
  const TimePoint start;
  Progress progress("f", 2048, start);
  EXPECT_EQ(progress.text(), "f  0 B of 2.0 KiB  0%");
}

TEST(Progress, TellsRateAndTimeLeft) {
  const TimePoint start;
  Progress progress("f", 4096, start);
  progress.update(1024, start + seconds(1));
  EXPECT_EQ(progress.text(), "f  1.0 KiB of 4.0 KiB  25%  1.0 KiB/s  3.0 s left");
}

TEST(Progress, NeverGoesBack) {
  const TimePoint start;
  Progress progress("f", 4096, start);
  progress.update(2048, start + seconds(1));
  progress.update(2040, start + seconds(2));
  EXPECT_EQ(progress.text().substr(0, 12), "f  2.0 KiB o");
  EXPECT_EQ(progress.text().find("EiB"), std::string::npos) << progress.text();
}

TEST(Progress, OfAStreamHasNoEnd) {
  const TimePoint start;
  Progress progress("stdin", std::nullopt, start);
  progress.update(1024, start + seconds(2));
  EXPECT_EQ(progress.text(), "stdin  1.0 KiB  512 B/s");
}

TEST(Progress, OfAFileThatGrewStopsAt100) {
  const TimePoint start;
  Progress progress("f", 1024, start);
  progress.update(2048, start + seconds(1));
  EXPECT_EQ(progress.text(), "f  2.0 KiB of 1.0 KiB  100%  2.0 KiB/s");
}

TEST(Progress, OfAnEmptyFileIsComplete) {
  const TimePoint start;
  Progress progress("f", 0, start);
  EXPECT_EQ(progress.text(), "f  0 B of 0 B  100%");
}

TEST(Progress, SumsUp) {
  const TimePoint start;
  Progress progress("f", 4096, start);
  progress.update(4096, start + seconds(2));
  EXPECT_EQ(progress.total_text(start + seconds(2)), "2.0 s, 2.0 KiB/s");
}
