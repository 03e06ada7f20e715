#include "tools/units.h"

#include <gtest/gtest.h>

using namespace tarn_tool;
using std::chrono::microseconds;

TEST(Percent, IsAProbability) {
  EXPECT_DOUBLE_EQ(*parse_percent("10%"), 0.1);
  EXPECT_DOUBLE_EQ(*parse_percent("10"), 0.1);
  EXPECT_DOUBLE_EQ(*parse_percent("0.5 %"), 0.005);
  EXPECT_DOUBLE_EQ(*parse_percent("0"), 0);
  EXPECT_DOUBLE_EQ(*parse_percent("100%"), 1);
}

TEST(Percent, RefusesWhatIsNone) {
  for (const char* text : {"", "%", "-1%", "101%", "10%%", "10 percent", "ten", "1e1", "nan", " 1",
                           "0x10", "1.2.3", "."}) {
    EXPECT_FALSE(parse_percent(text)) << text;
  }
}

TEST(Duration, KnowsItsUnits) {
  EXPECT_EQ(parse_duration("500us"), microseconds(500));
  EXPECT_EQ(parse_duration("20ms"), microseconds(20000));
  EXPECT_EQ(parse_duration("20"), microseconds(20000));
  EXPECT_EQ(parse_duration("1.5s"), microseconds(1500000));
  EXPECT_EQ(parse_duration("2 MIN"), microseconds(120000000));
  EXPECT_EQ(parse_duration("0"), microseconds(0));
}

TEST(Duration, RefusesWhatIsNone) {
  for (const char* text : {"", "ms", "-5ms", "5h", "5 m s", "61min"}) {
    EXPECT_FALSE(parse_duration(text)) << text;
  }
}

TEST(Rate, CountsBitsInThousands) {
  EXPECT_EQ(parse_rate("9600bit"), 9600u);
  EXPECT_EQ(parse_rate("9600"), 9600u);
  EXPECT_EQ(parse_rate("500kbit"), 500000u);
  EXPECT_EQ(parse_rate("20mbit"), 20000000u);
  EXPECT_EQ(parse_rate("1.5Gbit"), 1500000000u);
}

TEST(Rate, RefusesWhatIsNone) {
  for (const char* text : {"", "0", "20mbps", "-1kbit", "20 mega"}) {
    EXPECT_FALSE(parse_rate(text)) << text;
  }
}

TEST(Size, CountsBytesIn1024s) {
  EXPECT_EQ(parse_size("1500"), 1500u);
  EXPECT_EQ(parse_size("64k"), 65536u);
  EXPECT_EQ(parse_size("16KiB"), 16384u);
  EXPECT_EQ(parse_size("1M"), 1048576u);
  EXPECT_EQ(parse_size("0"), 0u);
  EXPECT_FALSE(parse_size("64 kilo"));
}

TEST(Format, ChoosesTheUnit) {
  EXPECT_EQ(format_bytes(0), "0 B");
  EXPECT_EQ(format_bytes(1023), "1023 B");
  EXPECT_EQ(format_bytes(1536), "1.5 KiB");
  EXPECT_EQ(format_bytes(8 << 20), "8.0 MiB");
  EXPECT_EQ(format_seconds(0.44), "0.4 s");
  EXPECT_EQ(format_seconds(65), "1:05");
  EXPECT_EQ(format_seconds(7209), "2:00:09");
}
