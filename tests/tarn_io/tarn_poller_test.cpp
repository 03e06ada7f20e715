// TarnPoller: slots, and what a pass of poll does with them.
#include "tarn_io/tarn_poller.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <memory>
#include <vector>

#include "tests/support/net_call.h"
#include "tests/support/net_sockets.h"

using oxutils::Function;
using tarn_test::Call;
using tarn_test::Ends;
using tarn_test::OwnedFd;

namespace {

constexpr unsigned int kLong = 5000;  // ms

// What a function holds, and says when it is let go of.
using Load = std::shared_ptr<int>;

void count_run(Load load) { ++*load; }

// How many others hold it.
long holders(const Load& load) { return load.use_count() - 1; }

}  // namespace

TEST(TarnPoller, SaysFalseAtOnceWhenNothingIsWatched) {
  TarnPoller poller;

  EXPECT_FALSE(poller.poll(kLong));
}

TEST(TarnPoller, PollsForTheLiveSlots) {
  TarnPoller poller;
  Call call;
  TarnPoller::EventHandler handler;
  EXPECT_EQ(poller.get_events_flag(handler), 0);

  handler.read_func = call.function();
  EXPECT_EQ(poller.get_events_flag(handler), POLLIN);
  handler.write_func = call.function();
  EXPECT_EQ(poller.get_events_flag(handler), POLLIN | POLLOUT);
  handler.error_func = call.function();
  EXPECT_EQ(poller.get_events_flag(handler), POLLIN | POLLOUT | POLLERR);
}

TEST(TarnPoller, CallsTheReadSlotWhileThereIsSomethingToRead) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call read;
  poller.watch_read(ends.near.get(), read.function());
  tarn_test::send_text(ends.far.get(), "hello");

  EXPECT_TRUE(poller.poll(kLong));
  EXPECT_TRUE(poller.poll(kLong));

  EXPECT_EQ(read.count(), 2);
}

TEST(TarnPoller, SaysTrueWhenNothingHappened) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call read;
  poller.watch_read(ends.near.get(), read.function());

  EXPECT_TRUE(poller.poll(0));

  EXPECT_EQ(read.count(), 0);
}

TEST(TarnPoller, ReplacesAnEarlierFunction) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call first;
  Call second;
  poller.watch_read(ends.near.get(), first.function());
  poller.watch_read(ends.near.get(), second.function());
  tarn_test::send_text(ends.far.get(), "hello");

  poller.poll(kLong);

  EXPECT_EQ(first.count(), 0);
  EXPECT_EQ(second.count(), 1);
}

TEST(TarnPoller, KeepsTheOtherSlotsWhenOneIsUnwatched) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call read;
  Call write;
  poller.watch_read(ends.near.get(), read.function());
  poller.watch_write(ends.near.get(), write.function());
  tarn_test::send_text(ends.far.get(), "hello");

  poller.unwatch_read(ends.near.get());
  poller.poll(kLong);

  EXPECT_EQ(read.count(), 0);
  EXPECT_EQ(write.count(), 1);
}

TEST(TarnPoller, ForgetsAnUnwatchedDescriptorInTheNextPassNotBefore) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call call;
  poller.watch_read(ends.near.get(), call.function());
  poller.watch_write(ends.near.get(), call.function());
  poller.watch_error(ends.near.get(), call.function());
  poller.unwatch_read(ends.near.get());
  poller.unwatch_write(ends.near.get());
  poller.unwatch_error(ends.near.get());

  EXPECT_TRUE(poller.poll(0));
  EXPECT_FALSE(poller.poll(0));

  EXPECT_EQ(call.count(), 0);
}

TEST(TarnPoller, RemembersADescriptorThatWasOnlyUnwatched) {
  TarnPoller poller;
  poller.unwatch_read(7);

  EXPECT_TRUE(poller.poll(0));
  EXPECT_FALSE(poller.poll(0));
}

TEST(TarnPoller, RunsReadyDescriptorsInAscendingOrder) {
  const Ends one = tarn_test::udp_ends();
  const Ends two = tarn_test::udp_ends();
  const Ends three = tarn_test::udp_ends();
  TarnPoller poller;
  std::vector<int> order;
  Call a([&] { order.push_back(one.near.get()); });
  Call b([&] { order.push_back(two.near.get()); });
  Call c([&] { order.push_back(three.near.get()); });
  poller.watch_write(three.near.get(), c.function());
  poller.watch_write(one.near.get(), a.function());
  poller.watch_write(two.near.get(), b.function());

  poller.poll(kLong);

  EXPECT_EQ(order, (std::vector<int>{one.near.get(), two.near.get(), three.near.get()}));
}

TEST(TarnPoller, TellsWriteReadinessOncePerWatch) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call write;
  poller.watch_write(ends.near.get(), write.function());
  poller.poll(kLong);
  poller.poll(0);
  EXPECT_EQ(write.count(), 1);

  poller.watch_write(ends.near.get(), write.function());
  poller.poll(kLong);

  EXPECT_EQ(write.count(), 2);
}

TEST(TarnPoller, ForgetsADescriptorAfterItsOnlyWriteEvent) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call write;
  poller.watch_write(ends.near.get(), write.function());
  poller.poll(kLong);

  EXPECT_TRUE(poller.poll(0));
  EXPECT_FALSE(poller.poll(0));
}

TEST(TarnPoller, UndoesAWriteWatchMadeInsideTheWriteCallback) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call later;
  Call write([&] { poller.watch_write(ends.near.get(), later.function()); });
  poller.watch_write(ends.near.get(), write.function());

  poller.poll(kLong);
  poller.poll(0);

  EXPECT_EQ(write.count(), 1);
  EXPECT_EQ(later.count(), 0);
}

TEST(TarnPoller, LetsACallbackUnwatchItsOwnSlot) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call read([&] { poller.unwatch_read(ends.near.get()); });
  poller.watch_read(ends.near.get(), read.function());
  tarn_test::send_text(ends.far.get(), "hello");

  poller.poll(kLong);
  poller.poll(0);

  EXPECT_EQ(read.count(), 1);
}

TEST(TarnPoller, LetsACallbackReplaceItsOwnSlot) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call second;
  Call first([&] { poller.watch_read(ends.near.get(), second.function()); });
  poller.watch_read(ends.near.get(), first.function());
  tarn_test::send_text(ends.far.get(), "hello");

  poller.poll(kLong);
  EXPECT_EQ(second.count(), 0);
  poller.poll(kLong);

  EXPECT_EQ(first.count(), 1);
  EXPECT_EQ(second.count(), 1);
}

TEST(TarnPoller, SkipsASlotThatAnEarlierCallbackOfThePassEmptied) {
  const Ends one = tarn_test::udp_ends();
  const Ends two = tarn_test::udp_ends();
  TarnPoller poller;
  Call write_two;
  Call write_one([&] { poller.unwatch_write(two.near.get()); });
  poller.watch_write(one.near.get(), write_one.function());
  poller.watch_write(two.near.get(), write_two.function());

  poller.poll(kLong);

  EXPECT_EQ(write_one.count(), 1);
  EXPECT_EQ(write_two.count(), 0);
}

TEST(TarnPoller, LetsACallbackPollFromWithin) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  Call read([&] {
    char byte;
    recv(ends.near.get(), &byte, 1, 0);
    poller.poll(0);
  });
  poller.watch_read(ends.near.get(), read.function());
  tarn_test::send_text(ends.far.get(), "hello");

  poller.poll(kLong);

  EXPECT_EQ(read.count(), 1);
}

TEST(TarnPoller, SkipsAReadSlotThatAnEarlierCallbackOfThePassEmptied) {
  const Ends one = tarn_test::udp_ends();
  const Ends two = tarn_test::udp_ends();
  TarnPoller poller;
  Call read_two;
  Call read_one([&] { poller.unwatch_read(two.near.get()); });
  poller.watch_read(one.near.get(), read_one.function());
  poller.watch_read(two.near.get(), read_two.function());
  tarn_test::send_text(one.far.get(), "hello");
  tarn_test::send_text(two.far.get(), "hello");

  poller.poll(kLong);

  EXPECT_EQ(read_one.count(), 1);
  EXPECT_EQ(read_two.count(), 0);
}

// The number is watched anew, but the event was another socket's.
TEST(TarnPoller, SkipsAReadSlotThatAnEarlierCallbackOfThePassEmptiedAndFilled) {
  const Ends one = tarn_test::udp_ends();
  const Ends two = tarn_test::udp_ends();
  TarnPoller poller;
  Call read_two;
  Call read_one([&] {
    poller.unwatch_read(one.near.get());
    poller.unwatch_read(two.near.get());
    poller.watch_read(two.near.get(), read_two.function());
  });
  poller.watch_read(one.near.get(), read_one.function());
  poller.watch_read(two.near.get(), read_two.function());
  tarn_test::send_text(one.far.get(), "hello");
  tarn_test::send_text(two.far.get(), "hello");

  poller.poll(kLong);
  EXPECT_EQ(read_two.count(), 0);
  poller.poll(kLong);

  EXPECT_EQ(read_two.count(), 1);
}

TEST(TarnPoller, RunsTheFunctionThatAnEarlierCallbackOfThePassPutInPlace) {
  const Ends one = tarn_test::udp_ends();
  const Ends two = tarn_test::udp_ends();
  TarnPoller poller;
  Call before;
  Call after;
  Call read_one([&] { poller.watch_read(two.near.get(), after.function()); });
  poller.watch_read(one.near.get(), read_one.function());
  poller.watch_read(two.near.get(), before.function());
  tarn_test::send_text(one.far.get(), "hello");
  tarn_test::send_text(two.far.get(), "hello");

  poller.poll(kLong);

  EXPECT_EQ(before.count(), 0);
  EXPECT_EQ(after.count(), 1);
}

TEST(TarnPoller, LetsGoOfAFunctionWhenItIsUnwatched) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  const Load load = std::make_shared<int>(0);
  poller.watch_read(ends.near.get(), Function(&count_run, load));
  tarn_test::send_text(ends.far.get(), "hello");
  poller.poll(kLong);
  ASSERT_EQ(*load, 1);
  ASSERT_GT(holders(load), 0);

  poller.unwatch_read(ends.near.get());

  EXPECT_EQ(holders(load), 0);
}

TEST(TarnPoller, LetsGoOfAFunctionThatIsUnwatchedWhileItRuns) {
  const Ends ends = tarn_test::udp_ends();
  TarnPoller poller;
  const Load load = std::make_shared<int>(0);
  Call read([&] {
    poller.watch_read(ends.near.get(), Function(&count_run, load));
    poller.poll(0);
    poller.unwatch_read(ends.near.get());
  });
  poller.watch_read(ends.near.get(), read.function());
  tarn_test::send_text(ends.far.get(), "hello");

  poller.poll(kLong);

  EXPECT_EQ(read.count(), 1);
  EXPECT_EQ(*load, 1);
  EXPECT_EQ(holders(load), 0);
}
