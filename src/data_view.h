// Block and DataView: the chained byte views in which every packet is built and parsed.
#ifndef TARN_SRC_DATA_VIEW_H_
#define TARN_SRC_DATA_VIEW_H_

#include <utility>
#include <vector>

#include "oxutils/assert.h"
#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/wire_format.h"

// One contiguous run of bytes, its own or the caller's. It never frees what it does not own.
class Block {
 public:
  // Owns `size` bytes, all zero.
  explicit Block(unsigned long size);
  // Refers to the caller's bytes, which must outlive the block or its deep_copy().
  Block(char* data, unsigned long size) : data_(data), size_(size) {}
  // data_ may point into storage.
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;

  char* data() const { return data_; }
  unsigned long size() const { return size_; }
  bool owns_bytes() const { return !storage.empty(); }

  // Owns `bytes` instead.
  void adopt(std::vector<char>&& bytes) noexcept;
  // Shrinks to `new_size` bytes; storage keeps its size.
  void resize(unsigned long new_size);
  // Makes the block own its bytes; nothing if it does already.
  void deep_copy();

 private:
  std::vector<char> storage;  // empty while the bytes are the caller's
  char* data_ = nullptr;
  unsigned long size_ = 0;
};

// A block that refers to the caller's bytes, owns `len` zero bytes, or owns `bytes`.
oxutils::shared_ptr<Block> create_block(char* data, unsigned long len);
oxutils::shared_ptr<Block> create_block(unsigned long len);
oxutils::shared_ptr<Block> create_block(std::vector<char> bytes);

// A cheap, copyable view of at most two blocks: copies share the bytes. Its bytes are those of all
// blocks one after another, less offset_ at the front and trim_ at the end. Integers are
// big-endian. Bytes are copied only by merge, append and deep_copy. One thread at a time; views
// that share blocks may live on different threads.
class DataView {
 public:
  DataView() = default;
  DataView(const DataView&) = default;
  DataView& operator=(const DataView&) = default;
  // Leave an empty view behind.
  DataView(DataView&& other) noexcept
      : blocks_(std::move(other.blocks_)),
        offset_(std::exchange(other.offset_, 0)),
        trim_(std::exchange(other.trim_, 0)) {}
  DataView& operator=(DataView&& other) noexcept {
    if (this == &other) return *this;
    blocks_ = std::move(other.blocks_);
    offset_ = std::exchange(other.offset_, 0);
    trim_ = std::exchange(other.trim_, 0);
    return *this;
  }
  ~DataView() = default;

  // Wraps the caller's bytes, which must outlive the view unless deep_copy() is called.
  DataView(char* data, unsigned long len) : DataView(create_block(data, len)) {}
  // Owns `len` bytes, all zero.
  explicit DataView(unsigned long len) : DataView(create_block(len)) {}
  explicit DataView(std::vector<char> bytes) : DataView(create_block(std::move(bytes))) {}
  explicit DataView(oxutils::shared_ptr<Block> block) : blocks_(std::move(block)) {}
  // A view of a block that somebody else owns and that outlives every copy of the view, but for
  // those that called deep_copy(). Costs no allocation and no counting.
  static DataView lend(Block& block) { return DataView(oxutils::shared_ptr<Block>::lend(block)); }

  void swap(DataView& other) noexcept { std::swap(*this, other); }

  // Whether the one block is somebody else's, who lends it.
  bool is_lent() const { return blocks_.size() == 1 && !blocks_.front(); }
  // Whether the bytes are this view's own, and no other view's.
  bool is_exclusive() const { return blocks_.size() == 1 && is_sole_owner(); }

  unsigned long size() const { return total() - offset_ - trim_; }
  // The first byte, after a merge() if there are two blocks. Requires: at least one block.
  char* data() {
    merge();
    return front_data();
  }
  // Makes one owned block of two; nothing with fewer.
  void merge() {
    if (blocks_.size() >= 2) merge_blocks();
  }

  // Drops `len` bytes at the front. Requires: the first block holds them.
  void consume_front(unsigned long len) {
    OX_ASSERT("src/data_view", 123, blocks_.front()->size() >= offset_ + len);
    offset_ += len;
  }

  // Take an integer from the front. Requires: the first block as a whole is larger than the
  // integer, strictly; consume_front() then checks what is really left.
  unsigned char read_uint8() {
    OX_ASSERT("src/data_view", 77, blocks_.front()->size() > 1);
    const char* const at = front_data();
    consume_front(1);
    return static_cast<unsigned char>(*at);
  }
  char read_char() {
    OX_ASSERT("src/data_view", 85, blocks_.front()->size() > 1);
    const char* const at = front_data();
    consume_front(1);
    return *at;
  }
  unsigned short read_uint16() {
    OX_ASSERT("src/data_view", 93, blocks_.front()->size() > 2);
    const char* const at = front_data();
    consume_front(2);
    return wire::get_uint16(at);
  }
  unsigned int read_uint32() {
    OX_ASSERT("src/data_view", 101, blocks_.front()->size() > 4);
    const char* const at = front_data();
    consume_front(4);
    return wire::get_uint32(at);
  }

  // Overwrite bytes at `pos`, counted from the start of the first block whatever was consumed: they
  // patch the fields of a freshly built packet. Require: a first block that holds them.
  void write_uint16(unsigned long pos, unsigned short value);
  void write_uint32(unsigned long pos, unsigned int value);

  // A view of the first `len` bytes, which this view then has consumed; shares the block. On a view
  // that came from slice() itself the result reaches trim_ bytes further. `len` is not checked.
  DataView slice(unsigned long len) {
    merge();
    DataView head(*this);
    head.trim_ = total() - (offset_ + len) - trim_;
    offset_ += len;
    return head;
  }

  // Makes this view hold private copies of its own bytes and, in a second block, of other's.
  void append(DataView& other);

  // Makes the view independent of memory that it does not own.
  void deep_copy();

  // Shrinks the one block to `new_size` bytes, counted from its start.
  void resize(unsigned long new_size);

 private:
  // The list of block references: append() leaves two at most, so they stand in the view itself.
  class BlockList {
   public:
    BlockList() = default;
    explicit BlockList(oxutils::shared_ptr<Block> block) : first_(std::move(block)) {}

    bool empty() const { return first_.get() == nullptr; }
    unsigned long size() const { return second_.get() != nullptr ? 2 : empty() ? 0 : 1; }
    oxutils::shared_ptr<Block>& front() {
      OX_ASSERT("src/data_view", __LINE__, !empty());
      return first_;
    }
    const oxutils::shared_ptr<Block>& front() const {
      OX_ASSERT("src/data_view", __LINE__, !empty());
      return first_;
    }
    // Requires: size() is 2.
    oxutils::shared_ptr<Block>& back() { return second_; }
    const oxutils::shared_ptr<Block>& back() const { return second_; }
    void push_back(oxutils::shared_ptr<Block> block);

   private:
    oxutils::shared_ptr<Block> first_;
    oxutils::shared_ptr<Block> second_;
  };

  // Sum of all blocks' sizes.
  unsigned long total() const {
    switch (blocks_.size()) {
      case 0:
        return 0;
      case 1:
        return blocks_.front()->size();
      default:
        return blocks_.front()->size() + blocks_.back()->size();
    }
  }
  void merge_blocks();
  bool is_sole_owner() const;
  char* front_data() const { return blocks_.front()->data() + offset_; }
  // An owned copy of the view's bytes; merges the view first.
  oxutils::shared_ptr<Block> copy_bytes();

  BlockList blocks_;
  unsigned long offset_ = 0;  // bytes consumed at the front of the first block
  unsigned long trim_ = 0;    // bytes cut off at the end of the last block
};

#endif  // TARN_SRC_DATA_VIEW_H_
