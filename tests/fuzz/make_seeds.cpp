// Writes the inputs that fuzzing starts from: DIRECTORY/TARGET/NAME, one of each kind of thing that
// a target knows. What a script's bytes mean stands in the target's own steps.
#include <stdio.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "tarn/control.h"

namespace {

namespace fs = std::filesystem;

// The counterpart of FuzzInput.
class Bytes {
 public:
  Bytes& u8(unsigned value) {
    text_ += static_cast<char>(value);
    return *this;
  }
  Bytes& u16(unsigned value) { return u8(value >> 8).u8(value); }
  Bytes& u32(uint32_t value) { return u16(value >> 16).u16(value); }
  Bytes& all(std::initializer_list<unsigned> values) {
    for (const unsigned each : values) u8(each);
    return *this;
  }
  Bytes& add(const std::string& text) {
    text_ += text;
    return *this;
  }
  Bytes& repeat(int times, const Bytes& other) {
    for (int i = 0; i < times; ++i) text_ += other.text_;
    return *this;
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

using Seeds = std::vector<std::pair<std::string, std::string>>;

std::string segment(unsigned type, unsigned flag, const std::string& body) {
  return Bytes().u8(type * 4 + flag).u16(static_cast<unsigned>(body.size())).add(body).text();
}

std::string number(unsigned value) { return Bytes().u16(value).text(); }

std::string reliable(unsigned seq, unsigned flag, const std::string& payload) {
  return segment(0, flag, number(seq) + payload);
}

std::string conv(uint32_t id) { return segment(6, 3, Bytes().u32(id).text()); }

std::string datagram(const std::string& segments) { return std::string("$\0", 2) + segments; }

Seeds datagrams() {
  return {
      {"empty", ""},
      {"header", datagram("")},
      {"other-magic", "#" + std::string(1, '\0') + segment(1, 3, "abc")},
      {"bad-magic", "%" + std::string(1, '\0') + segment(1, 3, "abc")},
      {"later-version", std::string("$\7") + segment(1, 3, "abc")},
      {"first-reliable", datagram(reliable(0, 3, "abc"))},
      {"second-reliable", datagram(reliable(1, 3, "abc"))},
      {"fragments", datagram(reliable(0, 2, "ab") + reliable(1, 0, "cd") + reliable(2, 1, "ef"))},
      {"reordered", datagram(reliable(2, 3, "c") + reliable(1, 3, "b") + reliable(0, 3, "a"))},
      {"half-ring-away", datagram(reliable(32768, 3, "x") + reliable(0, 3, "y"))},
      {"short-reliable", datagram(segment(0, 3, "a"))},
      {"empty-reliable", datagram(segment(0, 3, number(0)))},
      {"unreliable", datagram(segment(1, 3, "hello"))},
      {"empty-unreliable", datagram(segment(1, 3, ""))},
      {"acks", datagram(segment(2, 3, number(5) + number(7)))},
      {"odd-acks", datagram(segment(2, 3, "abc"))},
      {"no-acks", datagram(segment(2, 3, ""))},
      {"una", datagram(segment(3, 3, number(9)))},
      {"long-una", datagram(segment(3, 3, "abc"))},
      {"bye", datagram(segment(4, 3, ""))},
      {"heartbeat", datagram(segment(5, 3, ""))},
      {"conv", datagram(conv(0x12345678))},
      {"short-conv", datagram(segment(6, 3, "abc") + segment(1, 3, "z"))},
      {"unknown-type", datagram(segment(7, 3, "abc"))},
      {"too-long", datagram(Bytes().u8(7).u16(4).add("abc").text())},
      {"one-left", datagram(segment(1, 3, "abc") + "x")},
      {"two-left", datagram(segment(1, 3, "abc") + "xy")},
      {"all-kinds", datagram(conv(9) + segment(3, 3, number(0)) + segment(2, 3, number(3)) +
                             reliable(0, 3, "data") + segment(1, 3, "more"))},
  };
}

// Settings, then every datagram as a step of its own, then a turn of the worker.
Seeds session_inputs() {
  const Bytes settings = Bytes().u16(0).u8(1).u8(32).u16(1400);
  const Bytes turn = Bytes().all({224, 60});
  Seeds seeds;
  for (const auto& each : datagrams()) {
    Bytes script = settings;
    script.u8(static_cast<unsigned>(each.second.size())).add(each.second);
    seeds.emplace_back(each.first, script.repeat(2, turn).text());
  }
  Bytes composed = settings;
  composed.all({167}).repeat(8, Bytes().all({3, 1, 4}).add("data")).repeat(1, turn);
  seeds.emplace_back("composed", composed.text());
  Bytes sending = settings;
  sending.all({229, 5}).add("hello").all({230, 5}).add("hello").all({231, 7}).add("hello!!");
  seeds.emplace_back("sending", sending.repeat(6, turn).text());
  Bytes ending = settings;
  ending.all({233, 0}).u8(12).add(datagram(segment(1, 3, "bye") + segment(4, 3, "")));
  seeds.emplace_back("ending-in-a-callback", ending.repeat(1, turn).text());
  return seeds;
}

// Two messages each way, one of them of many fragments, and what `link` does to them.
std::string pair_script(const Bytes& settings, const Bytes& link) {
  const Bytes traffic = Bytes()
                            .all({0, 0, 100, 0, 1, 40})
                            .u8(2)
                            .u8(0)
                            .u16(6000)
                            .u8(2)
                            .u8(1)
                            .u16(3000)
                            .all({3, 0, 20, 50, 3, 1, 21, 60});
  return Bytes().repeat(1, settings).repeat(1, traffic).repeat(1, link).repeat(1, traffic).text();
}

Seeds session_pairs() {
  const Bytes usual = Bytes().all({0, 3, 0, 3, 3});
  const Bytes near_the_wraps = Bytes().u8(1).u16(90).all({3, 130, 3, 3});
  const Bytes tiny_mtu = Bytes().all({0, 3, 0, 1, 200, 1, 150});
  const Bytes deliver = Bytes().all({6, 0, 6, 1, 9, 60});
  const Bytes lose = Bytes().repeat(4, Bytes().all({7, 0, 0, 0, 7, 1, 0, 0})).all({9, 60});
  const Bytes repeat = Bytes().repeat(3, Bytes().all({7, 0, 1, 1})).repeat(1, deliver);
  const Bytes reorder = Bytes().repeat(4, Bytes().all({4, 1, 3, 4, 0, 2})).all({9, 60});
  const Bytes cut = Bytes().all({7, 0, 1, 2}).u16(700).repeat(1, deliver);
  const Bytes corrupt = Bytes().all({7, 0, 1, 5}).u16(3).u8(255).repeat(1, deliver);
  const Bytes narrow = Bytes().all({12, 0, 1, 3, 12, 1, 1, 2}).repeat(2, deliver);
  const Bytes wired = Bytes().all({14, 1});
  const Bytes calling_back = Bytes().all({13, 0, 20, 13, 1, 31, 13, 0, 42, 13, 1, 53, 13, 0, 64});
  const Bytes ending = Bytes().all({13, 1, 138}).repeat(1, deliver);
  const Bytes unheard =
      Bytes().repeat(1, usual).all({0, 0, 100, 6, 1, 9, 60}).repeat(4, Bytes().all({7, 1, 0, 0}));
  const Bytes lost_between_turns =
      Bytes().repeat(1, usual).repeat(4, Bytes().all({0, 0, 50, 7, 0, 0, 0, 9, 15}));
  const Bytes ending_in_cycle = Bytes().repeat(1, usual).all({0, 0, 100, 6, 1, 13, 1, 138, 9, 60});
  const Bytes ending_in_resend = Bytes().repeat(1, usual).all({0, 0, 100, 13, 0, 138, 9, 60});
  // Answers that leave less and less of a segment to acknowledgements, and then nothing.
  Bytes all_but_full = Bytes().all({0, 3, 0, 1, 40, 1, 40});
  for (unsigned size = 24; size <= 40; ++size) all_but_full.all({0, 0, 20, 6, 1, 0, 1, size});
  const Bytes even_fragments = Bytes().all({0, 3, 0, 1, 40, 1, 40, 0, 0, 80, 0, 1, 120, 0, 0, 41});
  return {
      {"ending-in-the-cycle", ending_in_cycle.text()},
      {"ending-in-a-resend", ending_in_resend.text()},
      {"even-fragments", even_fragments.text()},
      {"all-but-full-segments", all_but_full.text()},
      {"acknowledgement-lost", unheard.text()},
      {"lost-between-turns", lost_between_turns.text()},
      {"delivered", pair_script(usual, deliver)},
      {"lost", pair_script(usual, lose)},
      {"repeated", pair_script(usual, repeat)},
      {"reordered", pair_script(usual, reorder)},
      {"cut", pair_script(usual, cut)},
      {"corrupted", pair_script(usual, corrupt)},
      {"narrow-windows", pair_script(usual, narrow)},
      {"wired", pair_script(usual, wired)},
      {"near-the-wraps", pair_script(near_the_wraps, lose)},
      {"tiny-mtu", pair_script(tiny_mtu, reorder)},
      {"calling-back", pair_script(usual, calling_back)},
      {"ending-in-a-callback", pair_script(usual, ending)},
  };
}

// Each operation once, with arguments that it accepts, on views that have something in them.
Bytes option(unsigned end, TarnOption which, unsigned value) {
  return Bytes().all({end, 6, static_cast<unsigned int>(which), 1}).u16(value);
}

// Each step names its end first.
Seeds session_controls() {
  const Bytes queue = Bytes()
                          .repeat(1, option(0, TARN_OPTION_SEND_QUEUE, 5000))
                          .repeat(1, option(0, TARN_OPTION_SEND_WINDOW, 2));
  const Bytes tries = Bytes().all({0, 0, 200, 0, 1, 100}).all({0, 2}).u16(7000).all({1, 0, 50});
  const Bytes deliver = Bytes().all({0, 10, 1, 10, 0, 13, 30});
  const Bytes lose = Bytes().repeat(3, Bytes().all({0, 11, 0, 0})).all({0, 13, 70});
  const Bytes paused = Bytes().all({1, 5, 1}).repeat(1, deliver).all({1, 5, 0});
  const Bytes tells = Bytes().all({0, 14, 0, 0, 14, 20, 0, 14, 3, 1, 14, 133});
  const Bytes lie = Bytes().all({0, 12, 1, 6}).add(segment(3, 3, number(9)) + "\x0b");
  const auto script = [&](const Bytes& before, const Bytes& after) {
    return Bytes().repeat(1, before).repeat(3, tries).repeat(3, after).repeat(2, deliver).text();
  };
  return {
      {"refused-and-told", script(option(0, TARN_OPTION_SEND_WINDOW, 1), deliver)},
      {"queued", script(queue, deliver)},
      {"queued-and-lost", script(queue, lose)},
      {"paused", script(option(1, TARN_OPTION_RECV_WINDOW, 3), paused)},
      {"inside-callbacks", script(Bytes().repeat(1, queue).repeat(4, tells), deliver)},
      {"wired", script(Bytes().repeat(1, queue).all({0, 15, 1, 1}), deliver)},
      {"balanced", script(Bytes().all({0, 7, 1, 1, 7, 2}), deliver)},
      {"peer-window", script(option(0, TARN_OPTION_PEER_WINDOW, 3), deliver)},
      {"too-large", script(option(1, TARN_OPTION_MAX_MESSAGE, 150), deliver)},
      {"keep-alive", script(option(0, TARN_OPTION_KEEP_ALIVE_MS, 20), deliver)},
      {"peer-timeout", script(option(0, TARN_OPTION_PEER_TIMEOUT_MS, 40), lose)},
      {"strict", script(option(0, TARN_OPTION_STRICT_CONV, 1), deliver)},
      {"lied-to", script(queue, lie)},
      {"small-mtu", script(option(0, TARN_OPTION_MTU, 20), deliver)},
  };
}

Seeds data_views() {
  const Bytes fill = Bytes()
                         .all({0, 0, 8})
                         .add("wrapped!")
                         .all({1, 1, 8})
                         .add("borrowed")
                         .all({2, 2, 8})
                         .add("owned!!!")
                         .all({3, 3, 9});
  Seeds seeds;
  for (unsigned op = 4; op < 15; ++op) {
    Bytes script = fill;
    for (unsigned slot = 0; slot < 4; ++slot) script.all({op, slot, (slot + 1) % 4, 4, 0, 0, 0, 1});
    seeds.emplace_back("operation-" + std::to_string(op), script.text());
  }
  Bytes slices = fill;
  slices.all({9, 0, 3, 5, 9, 3, 2, 2, 10, 3, 1, 10, 2, 3, 13, 3, 11, 0, 11, 1});
  seeds.emplace_back("slices-of-slices", slices.text());
  return seeds;
}

Seeds timer_queues() {
  const Bytes one_shot = Bytes().all({6, 1, 3, 3, 40});
  const Bytes periodic = Bytes().all({6, 1, 0, 1}).u16(20);
  const Bytes from_afar = Bytes().all({6, 4, 0, 1}).u16(20);
  const Bytes cancel = Bytes().all({6, 0, 1, 0});
  const Bytes pass = Bytes().all({1, 50});
  return {
      {"one-shots", Bytes().u8(0).repeat(3, one_shot).repeat(4, pass).text()},
      {"periodic", Bytes().u8(0).repeat(3, periodic).repeat(4, pass).text()},
      {"from-afar", Bytes().u8(0).repeat(2, from_afar).repeat(1, cancel).repeat(4, pass).text()},
      {"cancelled", Bytes().u8(0).repeat(2, periodic).repeat(1, cancel).repeat(4, pass).text()},
      {"across-the-wrap",
       Bytes().u8(1).u16(100).repeat(2, one_shot).repeat(2, periodic).repeat(6, pass).text()},
      {"clock-goes-back", Bytes().u8(0).repeat(2, periodic).u8(3).u16(9000).repeat(6, pass).text()},
  };
}

Seeds tcp_buffers() {
  const Bytes append = Bytes().all({0, 1, 60});
  const Bytes retrieve = Bytes().all({1, 1, 40});
  const Bytes send = Bytes().all({6, 1, 200});
  const Bytes burst = Bytes().all({6, 0}).u16(65000);
  const Bytes read = Bytes().u8(7);
  return {
      {"appended", Bytes().u8(1).repeat(4, append).repeat(4, retrieve).repeat(4, append).text()},
      {"read", Bytes().u8(1).repeat(2, send).repeat(2, read).repeat(2, retrieve).text()},
      {"burst", Bytes().u8(0).u16(9).repeat(2, burst).repeat(3, read).text()},
      {"hang-up", Bytes().u8(1).repeat(1, send).all({8, 0}).repeat(3, read).text()},
      {"in-place", Bytes().u8(1).all({3, 1, 200, 4, 1, 100, 5, 2}).repeat(1, append).text()},
  };
}

Seeds addresses() {
  Seeds seeds;
  for (const char* each : {"1.2.3.4",
                           "255.255.255.255",
                           "01.002.3.4",
                           "256.1.1.1",
                           "1.2.3",
                           "1.2.3.4.",
                           "1..2.3",
                           "::",
                           "::1",
                           "1::",
                           "1:2:3:4:5:6:7:8",
                           "1:2:3:4:5:6:7::",
                           "::2:3:4:5:6:7:8",
                           "64:ff9b::c000:221",
                           "::ffff:1.2.3.4",
                           "1:2:3:4:5:6:1.2.3.4",
                           "00001::ffff",
                           "10000::",
                           "1::2::3",
                           ":1::",
                           "1:",
                           ":::",
                           "1:2:3:4:5:6:7:8:9",
                           "fe80::1%lo",
                           "0x7f.1",
                           "1:2:3:4:5:6:7:8::"}) {
    seeds.emplace_back("address-" + std::to_string(seeds.size()), each);
  }
  return seeds;
}

bool write_all(const fs::path& directory, const Seeds& seeds) {
  std::error_code failed;
  fs::create_directories(directory, failed);
  for (const auto& each : seeds) {
    std::ofstream file(directory / each.first, std::ios::binary);
    file << each.second;
    if (!file.flush()) {
      fprintf(stderr, "cannot write %s\n", (directory / each.first).c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    fprintf(stderr, "usage: %s DIRECTORY\n", arguments[0]);
    return 2;
  }
  const fs::path root = arguments[1];
  const bool done = write_all(root / "packet", datagrams()) &&
                    write_all(root / "session_input", session_inputs()) &&
                    write_all(root / "session_pair", session_pairs()) &&
                    write_all(root / "session_control", session_controls()) &&
                    write_all(root / "data_view", data_views()) &&
                    write_all(root / "timer_queue", timer_queues()) &&
                    write_all(root / "tcp_buffer", tcp_buffers()) &&
                    write_all(root / "tarn_addr", addresses());
  return done ? 0 : 1;
}
