// A receive window that writes down what it delivers.
#ifndef TARN_TESTS_SUPPORT_KIT_RECV_H_
#define TARN_TESTS_SUPPORT_KIT_RECV_H_

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "src/recv_window.h"
#include "tests/support/kit_bytes.h"

namespace tarn_test {

// Places of a segment in its message, as they stand in the segment's head.
constexpr unsigned char kMiddle = 0;
constexpr unsigned char kLast = 1;
constexpr unsigned char kFirst = 2;
constexpr unsigned char kWhole = 3;

class Receiver {
 public:
  Receiver() { window.set_output_callback(oxutils::Function(this, &Receiver::on_message)); }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  bool input(int seq, std::string payload, unsigned char flag = kWhole) {
    DataView segment(payload.data(), payload.size());
    const bool taken = window.input(static_cast<unsigned short>(seq), segment, flag);
    // What the caller does with its datagram afterwards must not matter.
    for (char& byte : payload) byte = '!';
    return taken;
  }
  // A whole message that names its number.
  bool input(int seq) { return input(seq, std::to_string(seq)); }

  std::vector<std::string> take() {
    std::vector<std::string> taken;
    taken.swap(messages);
    return taken;
  }
  // The cumulative number, or -1 when there is none to report.
  int una() {
    unsigned short una = 0;
    return window.get_una(una) ? una : -1;
  }
  // All numbers to acknowledge, in order.
  std::vector<int> acks() {
    std::list<unsigned short> list;
    window.get_ack(list);
    return std::vector<int>(list.begin(), list.end());
  }

  RecvWindow window;
  std::vector<std::string> messages;
  // Runs after each message has been written down.
  std::function<void(const std::string&)> on_delivery;

 private:
  void on_message(DataView message) {
    const std::string text = text_of(message);
    messages.push_back(text);
    if (on_delivery) on_delivery(text);
  }
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_KIT_RECV_H_
