#include "tests/fuzz/support/bad_link.h"

#include <cstddef>
#include <utility>

namespace tarn_fuzz {
namespace {

constexpr size_t kMaxFlying = 300;

// As another version of the library might have sent it.
void relabel(std::string& datagram, unsigned version) {
  if (datagram.size() < 2) return;
  datagram[0] = '#';
  datagram[1] = static_cast<char>(version);
}

bool corrupt(std::string& datagram, size_t at, unsigned change) {
  if (change == 0 || datagram.empty()) return false;
  char& byte = datagram[at % datagram.size()];
  byte = static_cast<char>(byte ^ static_cast<char>(change));
  return true;
}

}  // namespace

void BadLink::put(std::string datagram) {
  if (flying_.size() < kMaxFlying) flying_.push_back(std::move(datagram));
}

std::string BadLink::take(size_t index) {
  const auto at = flying_.begin() + static_cast<std::ptrdiff_t>(index % flying_.size());
  std::string datagram = std::move(*at);
  flying_.erase(at);
  return datagram;
}

bool BadLink::mistreat(FuzzInput& input) {
  if (flying_.empty()) return false;
  std::string& chosen = flying_[input.u8() % flying_.size()];
  switch (input.below(6)) {
    case 0:
      std::swap(chosen, flying_.front());
      flying_.pop_front();
      return false;
    case 1:
      put(chosen);
      return false;
    case 2:
      chosen.resize(input.u16() % (chosen.size() + 1));
      return false;
    case 3:
      relabel(chosen, input.u8());
      return false;
    case 4:
      std::swap(chosen, flying_.front());
      return false;
    default: {
      const size_t at = input.u16();
      return corrupt(chosen, at, input.u8());
    }
  }
}

}  // namespace tarn_fuzz
