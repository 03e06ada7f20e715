// SentMessages: which messages a session has taken, and whether they get their numbers in order.
#ifndef TARN_TESTS_SIM_SENT_MESSAGES_H_
#define TARN_TESTS_SIM_SENT_MESSAGES_H_

#include <cstdint>
#include <map>
#include <string>

namespace tarn_sim {

// Messages of a session that may send them later, on other tasks than those that gave them. They
// are told apart by their bytes; of equal ones any may be meant.
class SentMessages {
 public:
  enum class Fate {
    kTaken,
    kRefused,  // will never be sent
    kUnknown,  // the session has ended meanwhile
  };

  // Both return what is wrong, or null.

  // A call has begun that gives this message, and has returned.
  using Message = uint64_t;
  Message begin(std::string bytes);
  const char* end(Message message, Fate fate);
  // The next message in the order of the numbers is this one.
  const char* place(const std::string& bytes);

  // Whether all that have been taken have been placed.
  bool are_all_placed() const { return taken_ == 0; }

 private:
  struct Call {
    std::string bytes;
    uint64_t begun;  // in begins and ends of calls
    uint64_t returned = UINT64_MAX;
    bool is_taken = false;
    bool is_placed = false;
  };
  const char* place(Message message);
  void forget(Message message);
  void unlist(Message message);

  std::map<Message, Call> calls_;                 // that are under way or not placed
  std::multimap<std::string, Message> by_bytes_;  // those not placed
  Message next_ = 0;
  uint64_t now_ = 0;
  uint64_t taken_ = 0;         // returned, not placed
  uint64_t latest_begun_ = 0;  // of those placed
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_SENT_MESSAGES_H_
