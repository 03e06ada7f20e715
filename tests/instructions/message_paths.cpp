// Messages between two sessions: sent, framed, kept, parsed, delivered, acknowledged, released.
#include <vector>

#include "tarn/tarn.h"
#include "tests/instructions/count.h"
#include "tests/instructions/ends.h"
#include "tests/instructions/paths.h"

namespace instructions {

namespace {

constexpr int kRounds = 1000;

// Each end answers the other with what acknowledges it: the answer carries the una, and its own
// acknowledgement rides on the next message.
void count_reliable(const char* name, size_t size, int rounds) {
  Pair pair;
  std::vector<char> message(size, 'x');
  const Path path{name, rounds, 2};
  count(path, [&] {
    pair.left.send_reliable(message);
    pair.right.send_reliable(message);
  });
  require(pair.left.received() == path.all_rounds() && pair.right.received() == path.all_rounds(),
          path, "messages were lost");
  require(pair.left.errors() + pair.right.errors() == 0, path, "the window overflowed");
}

// Received by a session that has nothing to acknowledge.
void count_unreliable(const char* name, size_t size) {
  Pair pair;
  std::vector<char> message(size, 'x');
  const Path path{name, kRounds};
  count(path, [&] { pair.left.send_unreliable(message); });
  require(pair.right.received() == path.all_rounds(), path, "messages were lost");
}

void count_unreliable_in_place(const char* name, size_t size) {
  constexpr size_t kPrefix = 12;  // bytes of the buffer before the message
  Pair pair;
  std::vector<char> buffer(kPrefix + size, 'x');
  const Path path{name, kRounds};
  count(path, [&] {
    tarn_send_unreliable_nocp(pair.left.handle(), buffer.data(), static_cast<int>(size));
  });
  require(pair.right.received() == path.all_rounds(), path, "messages were lost");
}

// Messages that are acknowledged together, `count` of them at a time; the answer carries the una.
void count_under_way(const char* name, size_t size, int messages) {
  constexpr unsigned int kDefaultWindow = 32;
  tarn_config_send_window_size(1024);
  Pair pair;
  std::vector<char> message(size, 'x');
  std::vector<char> answer(1, 'x');
  const Path path{name, 8, messages, 8};
  count(path, [&] {
    for (int i = 0; i < messages; ++i) pair.left.send_reliable(message);
    pair.right.send_unreliable(answer);
  });
  require(pair.left.errors() == 0, path, "the window overflowed");
  tarn_config_send_window_size(kDefaultWindow);
}

// More fragments than a window of the default size has room for.
void count_fragmented() {
  constexpr unsigned int kDefaultWindow = 32;
  constexpr unsigned int kWindow = 64;
  constexpr int kFragmentedRounds = 50;
  tarn_config_send_window_size(kWindow);
  tarn_config_recv_window_size(kWindow);
  count_reliable("reliable_65536", 65536, kFragmentedRounds);
  tarn_config_send_window_size(kDefaultWindow);
  tarn_config_recv_window_size(kDefaultWindow);
}

// The window is full and stays so: each message goes out once and is reported.
void count_overflow() {
  const Path path{"reliable_64_window_full", kRounds};
  End end;
  std::vector<char> message(64, 'x');
  while (end.errors() == 0) end.send_reliable(message);
  count(path, [&] { end.send_reliable(message); });
  require(end.errors() == 1 + path.all_rounds(), path, "a message was kept");
}

}  // namespace

void count_messages() {
  count_reliable("reliable_64", 64, kRounds);
  count_reliable("reliable_1024", 1024, kRounds);
  count_reliable("reliable_8192", 8192, kRounds / 4);
  count_under_way("reliable_8192_4_under_way", 8192, 4);
  count_under_way("reliable_8192_16_under_way", 8192, 16);
  count_under_way("reliable_8192_32_under_way", 8192, 32);
  count_fragmented();
  count_overflow();
  count_unreliable("unreliable_64", 64);
  count_unreliable("unreliable_1024", 1024);
  count_unreliable_in_place("unreliable_in_place_64", 64);
  count_unreliable_in_place("unreliable_in_place_1024", 1024);
}

}  // namespace instructions
