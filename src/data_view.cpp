#include "src/data_view.h"

#include <string.h>

#include <utility>

#include "src/wire_format.h"

Block::Block(unsigned long size) : storage(size), data_(storage.data()), size_(size) {}

Block::Block(std::vector<char> bytes)
    : storage(std::move(bytes)), data_(storage.data()), size_(storage.size()) {}

void Block::resize(unsigned long new_size) {
  OX_ASSERT("src/data_view", 22, new_size <= size_);
  size_ = new_size;
}

void Block::deep_copy() {
  if (owns_bytes()) return;
  storage.assign(data_, data_ + size_);
  data_ = storage.data();
}

oxutils::shared_ptr<Block> create_block(char* data, unsigned long len) {
  return oxutils::make_shared<Block>(data, len);
}

oxutils::shared_ptr<Block> create_block(unsigned long len) {
  return oxutils::make_shared<Block>(len);
}

oxutils::shared_ptr<Block> create_block(std::vector<char> bytes) {
  return oxutils::make_shared<Block>(std::move(bytes));
}

oxutils::shared_ptr<Block>& DataView::BlockList::front() {
  OX_ASSERT("src/data_view", __LINE__, !empty());
  return blocks_[0];
}

const oxutils::shared_ptr<Block>& DataView::BlockList::front() const {
  OX_ASSERT("src/data_view", __LINE__, !empty());
  return blocks_[0];
}

void DataView::BlockList::push_back(oxutils::shared_ptr<Block> block) {
  OX_ASSERT("src/data_view", __LINE__, size_ < kCapacity);
  blocks_[size_++] = std::move(block);
}

void DataView::BlockList::swap(BlockList& other) noexcept {
  for (unsigned long i = 0; i < kCapacity; ++i) blocks_[i].swap(other.blocks_[i]);
  std::swap(size_, other.size_);
}

void DataView::BlockList::clear() {
  while (!empty()) blocks_[--size_].reset();
}

DataView DataView::lend(Block& block) {
  DataView view;
  view.blocks_.push_back(oxutils::shared_ptr<Block>::lend(block));
  return view;
}

void DataView::swap(DataView& other) noexcept {
  blocks_.swap(other.blocks_);
  std::swap(offset_, other.offset_);
  std::swap(trim_, other.trim_);
}

bool DataView::is_exclusive() const {
  if (blocks_.size() != 1) return false;
  const oxutils::shared_ptr<Block>& block = blocks_.front();
  return !block || (block->owns_bytes() && block.use_count() == 1);
}

unsigned long DataView::total() const {
  unsigned long sum = 0;
  for (const auto& block : blocks_) sum += block->size();
  return sum;
}

unsigned long DataView::size() const { return total() - offset_ - trim_; }

char* DataView::data() {
  merge();
  return front_data();
}

void DataView::replace_blocks(oxutils::shared_ptr<Block> block) {
  blocks_.clear();
  blocks_.push_back(std::move(block));
}

void DataView::merge() {
  if (blocks_.size() < 2) return;
  std::vector<char> bytes;
  bytes.reserve(total());
  for (const auto& block : blocks_) {
    bytes.insert(bytes.end(), block->data(), block->data() + block->size());
  }
  replace_blocks(create_block(std::move(bytes)));
}

unsigned char DataView::read_uint8() {
  OX_ASSERT("src/data_view", 77, blocks_.front()->size() > 1);
  const auto value = static_cast<unsigned char>(*front_data());
  consume_front(1);
  return value;
}

char DataView::read_char() {
  OX_ASSERT("src/data_view", 85, blocks_.front()->size() > 1);
  const char value = *front_data();
  consume_front(1);
  return value;
}

unsigned short DataView::read_uint16() {
  OX_ASSERT("src/data_view", 93, blocks_.front()->size() > 2);
  const char* const at = front_data();
  consume_front(2);
  return wire::get_uint16(at);
}

unsigned int DataView::read_uint32() {
  OX_ASSERT("src/data_view", 101, blocks_.front()->size() > 4);
  const char* const at = front_data();
  consume_front(4);
  return wire::get_uint32(at);
}

void DataView::write_uint16(unsigned long pos, unsigned short value) {
  OX_ASSERT("src/data_view", 109, !blocks_.empty());
  OX_ASSERT("src/data_view", 110, blocks_.front()->size() > pos);
  OX_ASSERT("src/data_view", __LINE__, blocks_.front()->size() - pos >= sizeof value);
  wire::put_uint16(blocks_.front()->data() + pos, value);
}

void DataView::write_uint32(unsigned long pos, unsigned int value) {
  OX_ASSERT("src/data_view", 116, !blocks_.empty());
  OX_ASSERT("src/data_view", 117, blocks_.front()->size() > pos);
  OX_ASSERT("src/data_view", __LINE__, blocks_.front()->size() - pos >= sizeof value);
  wire::put_uint32(blocks_.front()->data() + pos, value);
}

void DataView::consume_front(unsigned long len) {
  OX_ASSERT("src/data_view", 123, blocks_.front()->size() >= offset_ + len);
  offset_ += len;
}

DataView DataView::slice(unsigned long len) {
  merge();
  DataView head(*this);
  // On a view with a trim_ of its own the result reaches trim_ bytes further: callers slice views
  // that reach to the end of their block.
  head.trim_ = total() - (offset_ + len) - trim_;
  offset_ += len;
  return head;
}

oxutils::shared_ptr<Block> DataView::copy_bytes() {
  const char* const bytes = data();
  return create_block(std::vector<char>(bytes, bytes + size()));
}

void DataView::append(DataView& other) {
  oxutils::shared_ptr<Block> own;
  oxutils::shared_ptr<Block> others;
  if (size() > 0) own = copy_bytes();
  if (other.size() > 0) others = other.copy_bytes();
  blocks_.clear();
  if (own) blocks_.push_back(std::move(own));
  if (others) blocks_.push_back(std::move(others));
  offset_ = trim_ = 0;
}

void DataView::deep_copy() {
  for (auto& block : blocks_) {
    if (block) {
      block->deep_copy();
    } else {
      // Lent, so the only one: keep what the view shows of it, not the whole datagram around it.
      block = copy_bytes();
      offset_ = trim_ = 0;
    }
  }
}

void DataView::resize(unsigned long new_size) {
  OX_ASSERT("src/data_view", 213, blocks_.size() == 1);
  blocks_.front()->resize(new_size);
}
