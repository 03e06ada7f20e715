// Runs library and model side by side on sequences of operations until enough have agreed, and
// makes a disagreement readable.
//
// A `Pair` is a library object and its model, born together:
//   using Op = ...;                      one operation; describe(op) names it, and minimise.h says
//                                        what else is asked of it
//   Op draw(Random&);                    an operation that is interesting where the model stands
//   std::string step(const Op&);         does it on both sides; what differs, or empty
//   bool left_the_rules() const;         what follows is not determined: the sequence ends here
#ifndef TARN_TESTS_MODEL_CAMPAIGN_H_
#define TARN_TESTS_MODEL_CAMPAIGN_H_

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/model/minimise.h"
#include "tests/model/random.h"
#include "tests/support/kit_sanitizer.h"

namespace tarn_model {

constexpr bool kSlow = tarn_test::kAddressSanitizer || tarn_test::kThreadSanitizer;
constexpr uint64_t kDefaultSeed = 20'250'319;
constexpr size_t kLongestSequence = 400;

// The variable's number, or `otherwise`.
inline uint64_t number_from_environment(const char* variable, uint64_t otherwise) {
  const char* text = getenv(variable);
  return text != nullptr ? strtoull(text, nullptr, 0) : otherwise;
}

template <typename Pair>
struct Sequence {
  std::vector<typename Pair::Op> ops;
  std::string failure;  // empty: both sides agreed
};

// Draws and does operations on a fresh pair.
template <typename Pair>
Sequence<Pair> explore(uint64_t seed) {
  Random random(seed);
  Sequence<Pair> sequence;
  const size_t length = random.between(1, kLongestSequence);
  Pair pair;
  while (sequence.ops.size() < length && !pair.left_the_rules()) {
    sequence.ops.push_back(pair.draw(random));
    sequence.failure = pair.step(sequence.ops.back());
    if (!sequence.failure.empty()) break;
  }
  return sequence;
}

// Does the given operations on a fresh pair.
template <typename Pair>
std::string replay(const std::vector<typename Pair::Op>& ops) {
  Pair pair;
  for (const auto& op : ops) {
    const std::string failure = pair.step(op);
    if (!failure.empty()) return failure;
    if (pair.left_the_rules()) break;
  }
  return std::string();
}

template <typename Pair>
std::string report(uint64_t seed, const Sequence<Pair>& sequence) {
  using Op = typename Pair::Op;
  const auto fails = [](const std::vector<Op>& ops) { return !replay<Pair>(ops).empty(); };
  const auto ops = Minimiser<Op, decltype(fails)>(sequence.ops, fails).run();
  if (!fails(ops)) return "library and model disagree, but not again: " + sequence.failure;
  std::string text = "library and model disagree; the shortest sequence that shows it:\n";
  for (size_t i = 0; i < ops.size(); ++i) {
    text += "  " + std::to_string(i + 1) + ". " + describe(ops[i]) + "\n";
  }
  text += "after the last one, " + replay<Pair>(ops) + "It was found in a sequence of " +
          std::to_string(sequence.ops.size()) +
          " operations; run it again with TARN_MODEL_SEED=" + std::to_string(seed) +
          " TARN_MODEL_OPS=1 --gtest_filter=";
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  return text + info->test_suite_name() + "." + info->name();
}

// `wanted` operations, or what TARN_MODEL_OPS says; the sequence numbered i has the seed
// TARN_MODEL_SEED + i. The sanitizers, ten times as slow, get a fifth.
template <typename Pair>
void run_campaign(uint64_t wanted) {
  if (kSlow) wanted /= 5;
  wanted = number_from_environment("TARN_MODEL_OPS", wanted);
  const uint64_t first = number_from_environment("TARN_MODEL_SEED", kDefaultSeed);
  uint64_t done = 0;
  uint64_t sequences = 0;
  for (; done < wanted; ++sequences) {
    const Sequence<Pair> sequence = explore<Pair>(first + sequences);
    done += sequence.ops.size();
    if (!sequence.failure.empty()) FAIL() << report(first + sequences, sequence);
  }
  ::testing::Test::RecordProperty("operations", std::to_string(done));
  printf("%llu operations in %llu sequences agreed\n", static_cast<unsigned long long>(done),
         static_cast<unsigned long long>(sequences));
}

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_CAMPAIGN_H_
