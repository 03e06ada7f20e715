// The parts that the models and the search for disagreements stand on.
#include <gtest/gtest.h>

#include "src/seq_latter.h"
#include "tests/model/minimise.h"
#include "tests/model/sequence_numbers.h"
#include "tests/model/trace.h"

namespace tarn_model {
namespace {

struct Number {
  uint16_t seq;
  std::string bytes;
  std::vector<Number> inside;
};
using Numbers = std::vector<Number>;

Numbers simpler(const Number& op) { return plainer_forms(op, &Number::bytes); }
bool close_gap(Numbers& ops, uint16_t seq) {
  lower_numbers(ops, seq);
  return true;
}
const uint16_t* number_of(const Number& op) { return &op.seq; }

std::vector<int> seqs(const Numbers& ops) {
  std::vector<int> numbers;
  for (const Number& op : ops) numbers.push_back(op.seq);
  return numbers;
}

Numbers counting(uint16_t count) {
  Numbers ops;
  for (uint16_t seq = 0; seq < count; ++seq) ops.push_back({seq, "bytes", {{seq, "", {}}}});
  return ops;
}

template <typename Fails>
Numbers minimised(const Numbers& ops, const Fails& fails) {
  return Minimiser<Number, Fails>(ops, fails).run();
}

TEST(Minimiser, KeepsWhatTheFailureNeeds) {
  const auto has_7_and_300 = [](const Numbers& ops) {
    bool seven = false;
    bool other = false;
    for (const Number& op : ops) {
      seven = seven || op.bytes == "7";
      other = other || (seven && op.bytes == "300");
    }
    return other;
  };
  Numbers ops = counting(400);
  ops[7].bytes = "7";
  ops[300].bytes = "300";
  EXPECT_EQ(minimised(ops, has_7_and_300).size(), 2u);
}

TEST(Minimiser, ClosesGapsBetweenNumbersThatMustFollowEachOther) {
  const auto counts_from_0_past_2 = [](const Numbers& ops) {
    for (size_t i = 0; i < ops.size(); ++i) {
      if (ops[i].seq != i) return false;
    }
    return ops.size() > 2;
  };
  EXPECT_EQ(seqs(minimised(counting(50), counts_from_0_past_2)), (std::vector<int>{0, 1, 2}));
}

TEST(Minimiser, DropsBytesAndInnerOperationsThatDoNotMatter) {
  const Numbers left = minimised(counting(10), [](const Numbers& ops) { return !ops.empty(); });
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].bytes, "");
  EXPECT_TRUE(left[0].inside.empty());
}

TEST(Trace, TellsWhereTwoDiffer) {
  Trace model;
  log(model, 4, "same %u", 1u);
  Trace library = model;
  EXPECT_EQ(difference(model, library), "");
  log(library, 5, "more");
  EXPECT_NE(difference(model, library).find("event 2 differs"), std::string::npos);
  EXPECT_NE(difference(model, library).find("log 5 \"more\""), std::string::npos);
}

TEST(SequenceNumbers, HaveTheOrderOfTheLibrarys) {
  for (int a : {0, 1, 32767, 32768, 65535}) {
    for (int b = 0; b < kRing; ++b) {
      const auto from = static_cast<uint16_t>(a);
      const auto to = static_cast<uint16_t>(b);
      ASSERT_EQ(is_after(from, to), SeqLatter()(from, to)) << a << " and " << b;
    }
  }
}

TEST(SequenceNumbers, HaveAnOrderWithinHalfTheRing) {
  struct Kept {
    uint16_t seq;
  };
  EXPECT_TRUE(have_an_order(std::vector<Kept>{}, 5));
  EXPECT_TRUE(have_an_order(std::vector<Kept>{{65000}, {10}}, 0));
  EXPECT_TRUE(have_an_order(std::vector<Kept>{{0}}, 32768)) << "one key for two numbers";
  EXPECT_FALSE(have_an_order(std::vector<Kept>{{0}, {1}}, 32768));
  EXPECT_FALSE(have_an_order(std::vector<Kept>{{20000}, {45000}}, 2));
}

}  // namespace
}  // namespace tarn_model
