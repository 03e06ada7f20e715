// The messages of the race: each says who sent it, and every byte of it can be checked.
#ifndef TARN_TESTS_RACE_RACE_MESSAGE_H_
#define TARN_TESTS_RACE_RACE_MESSAGE_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarn_test {

struct MessageId {
  uint32_t pair;
  uint32_t end;     // of the pair, 0 or 1, that sent it
  uint32_t thread;  // that sent it
  uint32_t number;  // among the reliable ones of this thread to this end
};

constexpr size_t kSmallestMessage = sizeof(MessageId);

// `size` bytes, at least kSmallestMessage, after `prefix` bytes of room.
std::vector<char> make_message(const MessageId& id, size_t size, size_t prefix = 0);

// False when a byte is not as it was made.
bool read_message(const char* data, size_t size, MessageId& id);

}  // namespace tarn_test

#endif  // TARN_TESTS_RACE_RACE_MESSAGE_H_
