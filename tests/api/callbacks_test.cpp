// Callbacks and their user pointers: read as pairs, replaced and removed at any time.
#include <atomic>
#include <thread>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

// Two callbacks, each of which knows its user pointer.
struct Pairs {
  std::atomic<int> mismatches{0};
  std::atomic<int> calls{0};
};
Pairs pairs;
int user_one;
int user_two;

void note(void* user, const int* own) {
  ++pairs.calls;
  if (user != own) ++pairs.mismatches;
}
int data_one(char*, int, void* user) { return note(user, &user_one), 0; }
int data_two(char*, int, void* user) { return note(user, &user_two), 0; }
int error_one(TarnError, void* user) { return note(user, &user_one), 0; }
int error_two(TarnError, void* user) { return note(user, &user_two), 0; }

class Callbacks : public RealTimeFixture {
 protected:
  Callbacks() : session_(tarn_create()) {
    tarn_set_conv(session_, 1);
    pairs.mismatches = 0;
    pairs.calls = 0;
  }
  ~Callbacks() override {
    tarn_destroy(session_);
    EXPECT_TRUE(wait_until_gone(session_));
  }

  // Runs `use` against two threads that keep replacing the callbacks.
  void under_replacement(const std::function<void()>& replace_with_one,
                         const std::function<void()>& replace_with_two,
                         const std::function<void(int)>& use) {
    replace_with_one();
    std::atomic<bool> done{false};
    std::thread one([&] {
      while (!done) replace_with_one();
    });
    std::thread two([&] {
      while (!done) replace_with_two();
    });
    for (int i = 0; i < 20000; ++i) use(i);
    done = true;
    one.join();
    two.join();
    EXPECT_GE(pairs.calls, 20000);
    EXPECT_EQ(pairs.mismatches, 0);
  }

  void* session_;
};

}  // namespace

TEST_F(Callbacks, OutputAndItsUserAreAPair) {
  char message[] = "x";
  under_replacement([this] { tarn_set_output_callback(session_, data_one, &user_one); },
                    [this] { tarn_set_output_callback(session_, data_two, &user_two); },
                    [&](int) { tarn_send_unreliable(session_, message, 1); });
}

TEST_F(Callbacks, UnreliableReceiveAndItsUserAreAPair) {
  const Bytes one = datagram({unreliable({1})});
  under_replacement([this] { tarn_set_recv_unreliable_callback(session_, data_one, &user_one); },
                    [this] { tarn_set_recv_unreliable_callback(session_, data_two, &user_two); },
                    [&](int) { feed(session_, one); });
}

TEST_F(Callbacks, ReliableReceiveAndItsUserAreAPair) {
  under_replacement(
      [this] { tarn_set_recv_reliable_callback(session_, data_one, &user_one); },
      [this] { tarn_set_recv_reliable_callback(session_, data_two, &user_two); },
      [&](int i) { feed(session_, datagram({reliable(static_cast<uint16_t>(i), {1})})); });
}

TEST_F(Callbacks, ErrorAndItsUserAreAPair) {
  const Bytes one = datagram({bye()});
  under_replacement([this] { tarn_set_error_callback(session_, error_one, &user_one); },
                    [this] { tarn_set_error_callback(session_, error_two, &user_two); },
                    [&](int) { feed(session_, one); });
}

TEST_F(Callbacks, ARemovedPairIsNeverHalfSeen) {
  char message[] = "x";
  std::atomic<bool> done{false};
  std::thread toggler([&] {
    while (!done) {
      tarn_set_output_callback(session_, data_one, &user_one);
      tarn_set_output_callback(session_, nullptr, nullptr);
    }
  });

  for (int i = 0; i < 20000; ++i) tarn_send_unreliable(session_, message, 1);

  done = true;
  toggler.join();
  EXPECT_EQ(pairs.mismatches, 0);
}

using CallbacksInside = SessionFixture;

TEST_F(CallbacksInside, MayReplaceThemselves) {
  struct Replacer {
    void* session;
    DatagramRecorder next;
    static int on_data(char*, int, void* self) {
      auto* replacer = static_cast<Replacer*>(self);
      tarn_set_output_callback(replacer->session, DatagramRecorder::on_data, &replacer->next);
      return 0;
    }
  };
  Endpoint a;
  Replacer replacer{a.handle(), {}};
  tarn_set_output_callback(a.handle(), Replacer::on_data, &replacer);

  a.send(pattern(3000));

  EXPECT_EQ(replacer.next.count(), 2u);
  a.destroy();
}

TEST_F(CallbacksInside, MaySendFromTheOutput) {
  struct Sender {
    void* session;
    int left;
    DatagramRecorder seen;
    static int on_data(char* data, int len, void* self) {
      auto* sender = static_cast<Sender*>(self);
      DatagramRecorder::on_data(data, len, &sender->seen);
      char message[] = "n";
      if (sender->left-- > 0) tarn_send_reliable(sender->session, message, 1);
      return 0;
    }
  };
  Endpoint a;
  Sender sender{a.handle(), 5, {}};
  tarn_set_output_callback(a.handle(), Sender::on_data, &sender);

  a.send("first");

  std::vector<int> numbers;
  for (const Bytes& each : sender.seen.all()) numbers.push_back(segments_of(each)[0].seq());
  EXPECT_EQ(numbers, (std::vector<int>{0, 1, 2, 3, 4, 5}));
  a.destroy();
}

TEST_F(CallbacksInside, TheErrorOfAFullWindowMaySendAgain) {
  struct Sender {
    void* session;
    int left;
    static int on_error(TarnError, void* self) {
      auto* sender = static_cast<Sender*>(self);
      char message[] = "n";
      if (sender->left-- > 0) tarn_send_reliable(sender->session, message, 1);
      return 0;
    }
  };
  tarn_config_send_window_size(0);
  Endpoint a;
  Sender sender{a.handle(), 5};
  tarn_set_error_callback(a.handle(), Sender::on_error, &sender);

  a.send("x");

  EXPECT_EQ(a.sent.count(), 6u);
  a.destroy();
}

TEST_F(CallbacksInside, MayCreateSessions) {
  struct Creator {
    void* made = nullptr;
    static int on_data(char*, int, void* self) {
      auto* creator = static_cast<Creator*>(self);
      if (creator->made == nullptr) creator->made = tarn_create();
      return 0;
    }
  } creator;
  Endpoint a;
  a.send("x");
  tarn_set_output_callback(a.handle(), Creator::on_data, &creator);

  advance(60);

  ASSERT_NE(creator.made, nullptr);
  tarn_set_conv(creator.made, 4);
  EXPECT_EQ(tarn_get_conv(creator.made), 4u);
  EXPECT_EQ(tarn_destroy(creator.made), 0);
  a.destroy();
}
