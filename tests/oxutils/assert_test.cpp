#include "oxutils/assert.h"

#include <gtest/gtest.h>

#include "tests/support/kit_death.h"

namespace {

// Free of side effects that the statement under test could be mistaken for.
void check_length(unsigned len, unsigned limit) { OX_ASSERT("tests/sample", 42, len <= limit); }

void check_here(const void* object) { OX_ASSERT("tests/sample", __LINE__, object != nullptr); }

TEST(Assert, LetsATrueConditionPass) {
  check_length(3, 3);
  check_here("");
}

TEST(Assert, EvaluatesItsConditionOnce) {
  int evaluated = 0;
  OX_ASSERT("tests/sample", 1, ++evaluated > 0);
  EXPECT_EQ(evaluated, 1);
}

TEST(Assert, AcceptsAPointerAsCondition) {
  const char* object = "object";
  OX_ASSERT("tests/sample", 1, object);
}

TEST(AssertDeathTest, WritesSourceLineFunctionAndConditionThenAborts) {
  EXPECT_ASSERTION(check_length(4, 3), "tests/sample", 42, "check_length", "len <= limit");
}

TEST(AssertDeathTest, WritesNothingElse) {
  EXPECT_ABORT(check_length(4, 3),
               "^tests/sample:42: check_length: assertion \"len <= limit\" failed\n$");
}

TEST(AssertDeathTest, TakesThePlaceWhereItStandsWhenNoLineIsKnown) {
  EXPECT_ABORT(check_here(nullptr), tarn_test::assertion_without_line("tests/sample", "check_here",
                                                                      "object != nullptr"));
}

}  // namespace
