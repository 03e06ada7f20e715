#include "tests/fuzz/support/view_model.h"

#include <algorithm>

namespace tarn_fuzz {

ViewModel::BlockPtr ViewModel::own_block(const std::string& bytes) {
  return std::make_shared<Block>(
      Block{std::make_shared<std::string>(bytes), bytes.size(), true, false});
}

ViewModel ViewModel::wrap(const Memory& memory) {
  ViewModel view;
  view.blocks_.push_back(std::make_shared<Block>(Block{memory, memory->size(), false, false}));
  return view;
}

ViewModel ViewModel::lend(const Memory& memory) {
  ViewModel view;
  view.blocks_.push_back(std::make_shared<Block>(Block{memory, memory->size(), false, true}));
  return view;
}

ViewModel ViewModel::own(const std::string& bytes) {
  ViewModel view;
  view.blocks_.push_back(own_block(bytes));
  return view;
}

std::string ViewModel::all_bytes() const {
  std::string bytes;
  for (const BlockPtr& each : blocks_) bytes += each->memory->substr(0, each->length);
  return bytes;
}

size_t ViewModel::total() const {
  size_t sum = 0;
  for (const BlockPtr& each : blocks_) sum += each->length;
  return sum;
}

std::string ViewModel::text() const { return all_bytes().substr(offset_, size()); }

bool ViewModel::is_exclusive() const {
  if (blocks_.size() != 1) return false;
  const BlockPtr& block = blocks_.front();
  if (block->is_lent) return false;
  return block->is_own && !block->memory->empty() && block.use_count() == 1;
}

void ViewModel::merge() {
  if (blocks_.size() < 2) return;
  blocks_ = {own_block(all_bytes())};
}

bool ViewModel::can_consume(size_t len) const {
  return !blocks_.empty() && len <= size() && offset_ + len <= blocks_.front()->length;
}

// Strictly more than is read has to be in the block as a whole.
bool ViewModel::can_read(size_t width) const {
  return can_consume(width) && blocks_.front()->length > width;
}

uint32_t ViewModel::read(size_t width) {
  uint32_t value = 0;
  for (const char each : text().substr(0, width)) {
    value = value * 256 + static_cast<unsigned char>(each);
  }
  consume(width);
  return value;
}

bool ViewModel::can_write(size_t pos, size_t width) const {
  return !blocks_.empty() && pos + width <= blocks_.front()->length;
}

void ViewModel::write(size_t pos, size_t width, uint32_t value) {
  std::string& memory = *blocks_.front()->memory;
  for (size_t i = width; i-- > 0; value /= 256) memory[pos + i] = static_cast<char>(value % 256);
}

// The rest's own trim is subtracted from the head's, which then shows that much more than asked
// for.
ViewModel ViewModel::slice(size_t len) {
  merge();
  ViewModel head(*this);
  head.trim_ = size() - len;
  offset_ += len;
  return head;
}

void ViewModel::append(ViewModel& other) {
  const std::string first = text();
  const std::string second = other.text();
  // Their bytes are taken from one run.
  merge();
  other.merge();
  blocks_.clear();
  if (!first.empty()) blocks_.push_back(own_block(first));
  if (!second.empty()) blocks_.push_back(own_block(second));
  offset_ = trim_ = 0;
}

void ViewModel::deep_copy() {
  for (BlockPtr& each : blocks_) {
    if (each->is_lent) {
      each = own_block(text());
      offset_ = trim_ = 0;
    } else if (!each->is_own) {
      // The block itself changes hands, for all views that share it.
      each->memory = std::make_shared<std::string>(each->memory->substr(0, each->length));
      each->is_own = each->length > 0;
    }
  }
}

bool ViewModel::can_resize(size_t new_size, const std::vector<ViewModel>& all) const {
  if (blocks_.size() != 1 || new_size > blocks_.front()->length) return false;
  return std::all_of(all.begin(), all.end(), [&](const ViewModel& other) {
    const auto shared = std::count(other.blocks_.begin(), other.blocks_.end(), blocks_.front());
    if (shared == 0) return true;
    const size_t rest = other.total() - blocks_.front()->length;
    return other.offset_ + other.trim_ <= rest + new_size;
  });
}

}  // namespace tarn_fuzz
