// Datagrams that are not the next one: early, repeated, without data, refused.
#include <vector>

#include "tarn/tarn.h"
#include "tests/instructions/count.h"
#include "tests/instructions/ends.h"
#include "tests/instructions/paths.h"

namespace instructions {

namespace {

constexpr int kRounds = 500;
constexpr int kSegments = 32;
// Types of segments, with their flag.
constexpr char kAcks = 0x0B;
constexpr char kUna = 0x0F;

char high(int seq) { return static_cast<char>(seq >> 8); }
char low(int seq) { return static_cast<char>(seq); }

// A header, conversation id 1 and the head of a segment of `type` with `count` numbers, then these.
std::vector<char> feedback_datagram(char type, int first, int count) {
  std::vector<char> datagram = {'$', 0, 0x1B, 0, 4, 0, 0, 0, 1, type, 0, low(2 * count)};
  for (int seq = first; seq < first + count; ++seq) {
    datagram.push_back(high(seq));
    datagram.push_back(low(seq));
  }
  return datagram;
}

// All but the last segment wait; that one releases them. The answer acknowledges the window.
void count_reverse_window() {
  const Path path{"window_in_reverse_32x1024", 20};
  Recorder sender;
  End receiver;
  std::vector<char> answer(1, 'x');
  std::vector<std::vector<char>>* datagrams = nullptr;
  count(
      path, [&] { datagrams = &sender.record(kSegments, 1024); },
      [&] {
        for (auto each = datagrams->rbegin(); each != datagrams->rend(); ++each) {
          receiver.input(*each);
        }
        receiver.send_unreliable(answer);
      });
  require(receiver.received() == path.all_rounds() * kSegments, path, "messages were lost");
}

void count_duplicate() {
  const Path path{"duplicate_1024", kRounds};
  End receiver;
  std::vector<char> datagram = Recorder().record(1, 1024).front();
  count(path, [&] { receiver.input(datagram); });
  require(receiver.received() == 1, path, "a repetition was delivered");
}

// Nothing but the number up to which everything has arrived; it releases one segment.
void count_una() {
  const Path path{"acknowledgement_alone", kRounds};
  End sender;
  std::vector<char> message(64, 'x');
  std::vector<char> datagram;
  int seq = 0;
  count(
      path,
      [&] {
        sender.send_reliable(message);
        datagram = feedback_datagram(kUna, seq++, 1);
      },
      [&] { sender.input(datagram); });
  require(sender.errors() == 0, path, "segments were not released");
}

// What sending costs by itself, with room in the window; acknowledged in between.
void count_sending(const char* name, size_t size, void (End::*send)(std::vector<char>&) const) {
  constexpr int kMessages = 4;
  constexpr size_t kMtu = 1400;
  const Path path{name, 100, kMessages};
  const int segments = kMessages * static_cast<int>((size + kMtu - 1) / kMtu);
  End sender;
  std::vector<char> message(size, 'x');
  std::vector<char> datagram;
  int next = 0;
  count(
      path,
      [&] {
        if (next > 0) sender.input(datagram = feedback_datagram(kUna, next - 1, 1));
        next += segments;
      },
      [&] {
        for (int i = 0; i < kMessages; ++i) (sender.*send)(message);
      });
  require(sender.errors() == 0, path, "a message was not kept");
}

// Segments that have arrived early, one by one.
void count_acks() {
  const Path path{"acknowledgement_list_of_16", kRounds / 2};
  constexpr int kListed = 16;
  End sender;
  std::vector<char> message(64, 'x');
  std::vector<char> datagram;
  int seq = 0;
  count(
      path,
      [&] {
        for (int i = 0; i < kListed; ++i) sender.send_reliable(message);
        datagram = feedback_datagram(kAcks, seq, kListed);
        seq += kListed;
      },
      [&] { sender.input(datagram); });
  require(sender.errors() == 0, path, "segments were not released");
}

void count_refused(const char* name, std::vector<char> datagram) {
  End end;
  const Path path{name, kRounds};
  count(path, [&] { end.input(datagram); });
  require(end.received() + end.errors() == 0, path, "a datagram was taken");
}

}  // namespace

void count_datagrams() {
  count_reverse_window();
  count_duplicate();
  count_una();
  count_acks();
  count_sending("send_reliable_64", 64, &End::send_reliable);
  count_sending("send_reliable_1024", 1024, &End::send_reliable);
  count_sending("send_reliable_8192", 8192, &End::send_reliable);
  count_sending("try_send_reliable_64", 64, &End::try_send_reliable);
  count_sending("try_send_reliable_1024", 1024, &End::try_send_reliable);
  count_sending("try_send_reliable_8192", 8192, &End::try_send_reliable);
  count_refused("refused_garbage_64", std::vector<char>(64, 'x'));
  std::vector<char> cut = Recorder().record(1, 64).front();
  cut.pop_back();
  count_refused("refused_cut_64", cut);
}

}  // namespace instructions
