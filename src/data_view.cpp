#include "src/data_view.h"

#include <string.h>

#include <utility>

#include "src/wire_format.h"

Block::Block(unsigned long size) : storage(size), data_(storage.data()), size_(size) {}

void Block::adopt(std::vector<char>&& bytes) noexcept {
  storage = std::move(bytes);
  data_ = storage.data();
  size_ = storage.size();
}

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
  oxutils::shared_ptr<Block> block = create_block(0);
  block->adopt(std::move(bytes));
  return block;
}

void DataView::BlockList::push_back(oxutils::shared_ptr<Block> block) {
  OX_ASSERT("src/data_view", __LINE__, size() < 2);
  (empty() ? first_ : second_) = std::move(block);
}

bool DataView::is_sole_owner() const {
  const oxutils::shared_ptr<Block>& block = blocks_.front();
  return block->owns_bytes() && block.use_count() == 1;
}

void DataView::merge_blocks() {
  std::vector<char> bytes;
  bytes.reserve(total());
  for (const Block* const block : {blocks_.front().get(), blocks_.back().get()}) {
    bytes.insert(bytes.end(), block->data(), block->data() + block->size());
  }
  blocks_ = BlockList(create_block(std::move(bytes)));
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

oxutils::shared_ptr<Block> DataView::copy_bytes() {
  const char* const bytes = data();
  return create_block(std::vector<char>(bytes, bytes + size()));
}

void DataView::append(DataView& other) {
  oxutils::shared_ptr<Block> own;
  oxutils::shared_ptr<Block> others;
  if (size() > 0) own = copy_bytes();
  if (other.size() > 0) others = other.copy_bytes();
  blocks_ = BlockList();
  if (own) blocks_.push_back(std::move(own));
  if (others) blocks_.push_back(std::move(others));
  offset_ = trim_ = 0;
}

void DataView::deep_copy() {
  if (blocks_.empty()) return;
  oxutils::shared_ptr<Block>& block = blocks_.front();
  if (block) {
    block->deep_copy();
    if (blocks_.size() > 1) blocks_.back()->deep_copy();
    return;
  }
  // Lent, so the only one: keep what the view shows of it, not the whole datagram around it.
  block = copy_bytes();
  offset_ = trim_ = 0;
}

void DataView::resize(unsigned long new_size) {
  OX_ASSERT("src/data_view", 213, blocks_.size() == 1);
  blocks_.front()->resize(new_size);
}
