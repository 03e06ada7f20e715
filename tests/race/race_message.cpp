#include "tests/race/race_message.h"

#include <cstring>

namespace tarn_test {
namespace {

char filling(const MessageId& id, size_t size, size_t at) {
  const size_t seed = id.pair * 31 + id.end * 17 + id.thread * 7 + id.number * 13 + size;
  return static_cast<char>(seed + at * 5 + at / 251);
}

}  // namespace

std::vector<char> make_message(const MessageId& id, size_t size, size_t prefix) {
  std::vector<char> message(prefix + size);
  char* const start = message.data() + prefix;
  memcpy(start, &id, sizeof id);
  for (size_t i = sizeof id; i < size; ++i) start[i] = filling(id, size, i);
  return message;
}

bool read_message(const char* data, size_t size, MessageId& id) {
  if (size < sizeof id) return false;
  memcpy(&id, data, sizeof id);
  for (size_t i = sizeof id; i < size; ++i) {
    if (data[i] != filling(id, size, i)) return false;
  }
  return true;
}

}  // namespace tarn_test
