// RecvWindow: a log callback that feeds the window from the line that it is told.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "src/recv_window.h"
#include "tarn/tarn.h"
#include "tests/support/kit_recv.h"

using tarn_test::kFirst;
using tarn_test::kLast;
using tarn_test::kWhole;
using Texts = std::vector<std::string>;

namespace {

constexpr int kEverything = 5;

class RecvWindowLogFeed : public ::testing::Test {
 protected:
  RecvWindowLogFeed() {
    current_ = this;
    tarn_set_log_callback2(kEverything, &RecvWindowLogFeed::on_line);
  }
  ~RecvWindowLogFeed() override { tarn_set_log_callback2(0, nullptr); }

  // Runs `action` in the next line that is `text`, once.
  void at_line(std::string text, std::function<void()> action) {
    text_ = std::move(text);
    action_ = std::move(action);
  }

  tarn_test::Receiver receiver_;

 private:
  static void on_line(int, const char* line) {
    if (line != current_->text_ || !current_->action_) return;
    const std::function<void()> action = std::exchange(current_->action_, nullptr);
    action();
  }

  static RecvWindowLogFeed* current_;
  std::string text_;
  std::function<void()> action_;
};

RecvWindowLogFeed* RecvWindowLogFeed::current_ = nullptr;

TEST_F(RecvWindowLogFeed, DeliversTheNextNumberAfterTheOneThatWasLogged) {
  receiver_.input(0);
  at_line("recv window output seq 1", [this] { receiver_.input(2); });

  receiver_.input(1);

  EXPECT_EQ(receiver_.take(), (Texts{"0", "1", "2"}));
}

TEST_F(RecvWindowLogFeed, DeliversTheNumberThatWasLoggedOnce) {
  receiver_.input(0);
  at_line("recv window output seq 1", [this] { receiver_.input(1, "again"); });

  receiver_.input(1);

  EXPECT_EQ(receiver_.take(), (Texts{"0", "again"}));
  EXPECT_EQ(receiver_.una(), 1);
}

TEST_F(RecvWindowLogFeed, DeliversNumber1AfterNumber0) {
  at_line("recv window output seq 0", [this] { receiver_.input(1); });

  receiver_.input(0);

  EXPECT_EQ(receiver_.take(), (Texts{"0", "1"}));
}

TEST_F(RecvWindowLogFeed, DeliversNumber0Once) {
  at_line("recv window output seq 0", [this] { receiver_.input(0, "again"); });

  receiver_.input(0);
  receiver_.input(1);

  EXPECT_EQ(receiver_.take(), (Texts{"again", "1"}));
}

TEST_F(RecvWindowLogFeed, KeepsFragmentsInOrder) {
  receiver_.input(0);
  at_line("recv window output seq 1", [this] { receiver_.input(2, "last", kLast); });

  receiver_.input(1, "first ", kFirst);

  EXPECT_EQ(receiver_.take(), (Texts{"0", "first last"}));
}

TEST_F(RecvWindowLogFeed, JoinsWhatIsFedFromTheLineOfAFragment) {
  receiver_.input(0);
  at_line("staging seq 1 len 6", [this] { receiver_.input(2, "last", kLast); });

  receiver_.input(1, "first ", kFirst);

  EXPECT_EQ(receiver_.take(), (Texts{"0", "first last"}));
}

TEST_F(RecvWindowLogFeed, DeliversAReleasedNumberOnceAndInOrder) {
  receiver_.input(0);
  receiver_.input(2);
  receiver_.input(3);
  at_line("recv window output seq 2", [this] {
    receiver_.input(2, "again");
    receiver_.input(4);
  });

  receiver_.input(1);

  EXPECT_EQ(receiver_.take(), (Texts{"0", "1", "again", "3", "4"}));
}

}  // namespace
