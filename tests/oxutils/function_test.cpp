// Function: binding, calling, sharing.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "oxutils/callback.h"
#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/data_view.h"
#include "tests/support/kit_death.h"

using oxutils::Function;
using oxutils::make_shared;
using oxutils::shared_ptr;

namespace {

constexpr char kSource[] = "oxutils/callback";

std::string got;
void take_none() { got += "none;"; }
void take_one(int a) { got += std::to_string(a) + ";"; }
void take_two(int a, unsigned short b) { got += std::to_string(a) + "," + std::to_string(b) + ";"; }
void take_three(int a, unsigned short b, bool* c) {
  got += std::to_string(a) + "," + std::to_string(b) + ";";
  if (c != nullptr) *c = true;
}
void spoil(std::string text) {
  got += text + ";";
  text = "spoilt";
}
void take_shared(shared_ptr<int> value) { got += std::to_string(*value) + ";"; }

struct Recorder {
  void none() { seen += "none;"; }
  void one(int a) { seen += std::to_string(a) + ";"; }
  void two(int a, unsigned short b) { seen += std::to_string(a) + "," + std::to_string(b) + ";"; }
  void resend(unsigned short seq, DataView packet, bool* keep) {
    seen += std::to_string(seq) + ":" + std::string(packet.data(), packet.size()) + ";";
    *keep = false;
  }
  void consume(DataView view) {
    view.consume_front(2);
    seen += std::string(view.data(), view.size()) + ";";
  }
  std::string seen;
};

class FunctionTest : public ::testing::Test {
 protected:
  FunctionTest() { got.clear(); }
  Recorder recorder_;
};

TEST_F(FunctionTest, IsNotSetByDefault) { EXPECT_FALSE(Function()); }

TEST_F(FunctionTest, IsSetWithATarget) {
  EXPECT_TRUE(Function(take_none));
  EXPECT_TRUE(Function(&recorder_, &Recorder::none));
}

TEST_F(FunctionTest, CallsAPlainFunction) {
  const Function f(take_none);
  f();
  EXPECT_EQ(got, "none;");
}

TEST_F(FunctionTest, CallsAMethod) {
  const Function f(&recorder_, &Recorder::none);
  f();
  EXPECT_EQ(recorder_.seen, "none;");
}

TEST_F(FunctionTest, UsesBoundArguments) {
  Function(take_one, 4)();
  Function(take_two, 5, static_cast<unsigned short>(6))();
  EXPECT_EQ(got, "4;5,6;");
  Function(&recorder_, &Recorder::one, 7)();
  Function(&recorder_, &Recorder::two, 8, static_cast<unsigned short>(9))();
  EXPECT_EQ(recorder_.seen, "7;8,9;");
}

TEST_F(FunctionTest, PassesAllGivenArguments) {
  bool flag = false;
  bool* where = &flag;
  Function one(take_one);
  one(1);
  Function two(take_two);
  two(2, static_cast<unsigned short>(3));
  Function three(take_three);
  three(4, static_cast<unsigned short>(5), where);
  EXPECT_EQ(got, "1;2,3;4,5;");
  EXPECT_TRUE(flag);
}

TEST_F(FunctionTest, PassesAResendCall) {
  char bytes[] = {'a', 'b', 'c'};
  const DataView packet(bytes, sizeof bytes);
  bool keep = true;
  Function f(&recorder_, &Recorder::resend);
  f(static_cast<unsigned short>(65535), packet, &keep);
  EXPECT_EQ(recorder_.seen, "65535:abc;");
  EXPECT_FALSE(keep);
}

TEST_F(FunctionTest, CopiesAViewAtEachHop) {
  char bytes[] = {'a', 'b', 'c', 'd'};
  DataView view(bytes, sizeof bytes);
  Function f(&recorder_, &Recorder::consume);
  f(view);
  f(view);
  EXPECT_EQ(recorder_.seen, "cd;cd;");
  EXPECT_EQ(view.size(), 4u);
}

TEST_F(FunctionTest, SharesTheBytesOfAView) {
  char bytes[] = {'a', 'b', 'c', 'd'};
  const DataView view(bytes, sizeof bytes);
  const Function f(&recorder_, &Recorder::consume, view);
  bytes[2] = 'X';
  f();
  EXPECT_EQ(recorder_.seen, "Xd;");
}

TEST_F(FunctionTest, KeepsTheStoredValueFromItsTarget) {
  const Function f(spoil, std::string("fresh"));
  f();
  f();
  EXPECT_EQ(got, "fresh;fresh;");
}

TEST_F(FunctionTest, StoresACopyOfWhatIsBound) {
  int value = 1;
  const Function f(take_one, value);
  value = 2;
  f();
  EXPECT_EQ(got, "1;");
}

TEST_F(FunctionTest, CopySharesTheCallback) {
  const shared_ptr<int> value = make_shared<int>(5);
  const Function first(take_shared, value);
  const uint32_t count = value.use_count();
  const Function second = first;
  EXPECT_EQ(value.use_count(), count) << "the stored argument was copied";
  second();
  EXPECT_EQ(got, "5;");
}

TEST_F(FunctionTest, CallbackLivesAsLongAsAnyCopy) {
  const shared_ptr<int> value = make_shared<int>(5);
  {
    Function copy;
    {
      const Function original(take_shared, value);
      copy = original;
    }
    EXPECT_GT(value.use_count(), 1u);
    copy();
    EXPECT_EQ(got, "5;");
  }
  EXPECT_EQ(value.use_count(), 1u);
}

TEST_F(FunctionTest, MayReplaceItselfWhileItRuns) {
  // The caller keeps a copy, as everything does that calls what it stores.
  static Function stored;
  stored = Function(+[] {
    stored = Function();
    got += "ran;";
  });
  const Function running = stored;
  running();
  EXPECT_EQ(got, "ran;");
  EXPECT_FALSE(stored);
}

TEST_F(FunctionTest, MayBeCopiedToAndCalledOnOtherThreads) {
  static std::atomic<int> calls;
  calls = 0;
  {
    const Function f(
        +[](int by) { calls += by; }, 2);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([f] {
        for (int round = 0; round < 500; ++round) {
          const Function copy = f;
          copy();
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(calls, 4 * 500 * 2);
}

void call_empty() { Function()(); }
void call_empty_with_one() { Function()(1); }
void call_empty_with_two() { Function()(1, 2); }
void call_empty_with_three() { Function()(1, 2, 3); }

TEST(FunctionDeathTest, CallOfAnEmptyFunctionAborts) {
  EXPECT_ASSERTION(call_empty(), kSource, 469, "operator()", "callback_");
}

TEST(FunctionDeathTest, CallOfAnEmptyFunctionWithOneArgumentAborts) {
  EXPECT_ASSERTION(call_empty_with_one(), kSource, 476, "operator()", "callback_");
}

TEST(FunctionDeathTest, CallOfAnEmptyFunctionWithTwoArgumentsAborts) {
  EXPECT_ABORT(call_empty_with_two(),
               tarn_test::assertion_without_line(kSource, "operator()", "callback_"));
}

TEST(FunctionDeathTest, CallOfAnEmptyFunctionWithThreeArgumentsAborts) {
  EXPECT_ASSERTION(call_empty_with_three(), kSource, 490, "operator()", "callback_");
}

}  // namespace
