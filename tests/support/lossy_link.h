// A datagram path between two sessions that loses, repeats and reorders, the same way for the same
// seed.
//
// Output callbacks put datagrams on the path from any thread; pump() takes them off and feeds the
// two sessions on the caller's thread, so that each session has one feeder.
#ifndef TARN_TESTS_SUPPORT_LOSSY_LINK_H_
#define TARN_TESTS_SUPPORT_LOSSY_LINK_H_

#include <atomic>
#include <cstdint>
#include <mutex>
#include <random>
#include <vector>

#include "tests/support/datagram_recorder.h"

namespace tarn_test {

struct LinkFaults {
  double loss = 0;
  double duplication = 0;
  // Share of the datagrams that are held back for some rounds, to be overtaken by others.
  double reordering = 0;
};

class LossyLink {
 public:
  LossyLink(uint64_t seed, LinkFaults faults);

  // Makes the link the output of both sessions.
  void connect(void* a, void* b);
  // Takes it away again; what is under way is lost.
  void disconnect();
  // Delivers what is due in this round. Datagrams put on the path meanwhile wait for the next one.
  void pump();

  // How many segments from each end the other has acknowledged in one run, as told by the una
  // segments that have arrived: what is sent beyond that may still be in the send window.
  uint64_t acknowledged_of_a() const { return towards_a_.acknowledged; }
  uint64_t acknowledged_of_b() const { return towards_b_.acknowledged; }
  uint64_t lost() const { return lost_; }

 private:
  struct UnderWay {
    Bytes bytes;
    int rounds;
  };
  // One direction.
  struct Path {
    void* to = nullptr;
    std::mutex guard;
    std::vector<Bytes> entering;
    std::vector<UnderWay> under_way;
    uint64_t acknowledged = 0;
  };

  static int on_output(char* data, int len, void* path);
  void admit(Path& path);
  void deliver(Path& path);
  static void note_una(Path& path, const Bytes& bytes);
  bool chance(double share);

  std::mt19937_64 random_;
  const LinkFaults faults_;
  void* a_ = nullptr;
  void* b_ = nullptr;
  Path towards_a_;
  Path towards_b_;
  uint64_t lost_ = 0;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_LOSSY_LINK_H_
