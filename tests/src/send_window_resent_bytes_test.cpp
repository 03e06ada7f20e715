// SendWindow: the bytes of a packet on its way out stay as they are, whatever becomes of the
// packet.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/send_window.h"
#include "tests/support/kit_bytes.h"
#include "tests/support/kit_worker.h"

using tarn_test::owned_view;
using tarn_test::text_of;

namespace {

constexpr size_t kSize = 1000;
constexpr int kSuccessors = 8;

// While packet 1 is emitted, it is acknowledged, and others of its size take its place.
struct Replacing {
  explicit Replacing(SendWindow& w) : window(w) {}

  void write(int seq, char filling) {
    DataView packet = owned_view(std::string(kSize, filling));
    EXPECT_TRUE(window.write(static_cast<unsigned short>(seq), packet));
  }
  void resend(unsigned short seq, DataView packet, bool*) {
    if (seq != 1) return;
    window.ack(1);
    for (int i = 0; i < kSuccessors; ++i) write(2 + i, static_cast<char>('b' + i));
    emitted.push_back(text_of(packet));
  }

  SendWindow& window;
  std::vector<std::string> emitted;
};

TEST(ResentBytes, StayWhenThePacketIsAcknowledgedAndOthersTakeItsPlace) {
  tarn_test::TestWindow window;
  Replacing replacing(*window.get());
  window->set_resend_callback(oxutils::Function(&replacing, &Replacing::resend));
  replacing.write(1, 'a');

  // The timer may turn it as well: after four turns its bucket has been served once at least.
  for (int turn = 0; turn < 4; ++turn) window.tick();

  window->set_resend_callback(oxutils::Function());
  EXPECT_EQ(replacing.emitted, std::vector<std::string>{std::string(kSize, 'a')});
  EXPECT_EQ(window->count(), kSuccessors);
}

}  // namespace
