// Block and DataView: the chained byte views in which every packet is built and parsed.
#ifndef TARN_SRC_DATA_VIEW_H_
#define TARN_SRC_DATA_VIEW_H_

#include <utility>
#include <vector>

#include "oxutils/assert.h"
#include "oxutils/smart_ptr/shared_ptr.h"

// One contiguous run of bytes, its own or the caller's. It never frees what it does not own.
class Block {
 public:
  // Owns `size` bytes, all zero.
  explicit Block(unsigned long size);
  // Refers to the caller's bytes, which must outlive the block or its deep_copy().
  Block(char* data, unsigned long size) : data_(data), size_(size) {}
  // Owns `bytes`.
  explicit Block(std::vector<char> bytes);
  // data_ may point into storage.
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;

  char* data() const { return data_; }
  unsigned long size() const { return size_; }
  bool owns_bytes() const { return !storage.empty(); }

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
  DataView(DataView&& other) noexcept { swap(other); }
  DataView& operator=(DataView&& other) noexcept {
    DataView(std::move(other)).swap(*this);
    return *this;
  }
  ~DataView() = default;

  // Wraps the caller's bytes, which must outlive the view unless deep_copy() is called.
  DataView(char* data, unsigned long len) { blocks_.push_back(create_block(data, len)); }
  // Owns `len` bytes, all zero.
  explicit DataView(unsigned long len) { blocks_.push_back(create_block(len)); }
  explicit DataView(std::vector<char> bytes) { blocks_.push_back(create_block(std::move(bytes))); }
  // A view of a block that somebody else owns and that outlives every copy of the view, but for
  // those that called deep_copy(). Costs no allocation and no counting.
  static DataView lend(Block& block);

  void swap(DataView& other) noexcept;

  // Whether nobody else can change the bytes while this view's user has them: the block is lent,
  // or its own and not shared.
  bool is_exclusive() const;

  unsigned long size() const;
  // The first byte, after a merge() if there are two blocks. Requires: at least one block.
  char* data();
  // Makes one owned block of two; nothing with fewer.
  void merge();

  // Drops `len` bytes at the front. Requires: the first block holds them.
  void consume_front(unsigned long len);

  // Take an integer from the front. Requires: the first block as a whole is larger than the
  // integer, strictly; consume_front() then checks what is really left.
  unsigned char read_uint8();
  char read_char();
  unsigned short read_uint16();
  unsigned int read_uint32();

  // Overwrite bytes at `pos`, counted from the start of the first block whatever was consumed: they
  // patch the fields of a freshly built packet. Require: a first block that holds them.
  void write_uint16(unsigned long pos, unsigned short value);
  void write_uint32(unsigned long pos, unsigned int value);

  // A view of the first `len` bytes, which this view then has consumed; shares the block. On a view
  // that came from slice() itself the result reaches trim_ bytes further. `len` is not checked.
  DataView slice(unsigned long len);

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
    bool empty() const { return size_ == 0; }
    unsigned long size() const { return size_; }
    oxutils::shared_ptr<Block>& front();
    const oxutils::shared_ptr<Block>& front() const;
    oxutils::shared_ptr<Block>* begin() { return blocks_; }
    oxutils::shared_ptr<Block>* end() { return blocks_ + size_; }
    const oxutils::shared_ptr<Block>* begin() const { return blocks_; }
    const oxutils::shared_ptr<Block>* end() const { return blocks_ + size_; }
    void push_back(oxutils::shared_ptr<Block> block);
    void swap(BlockList& other) noexcept;
    void clear();

   private:
    static constexpr unsigned long kCapacity = 2;
    oxutils::shared_ptr<Block> blocks_[kCapacity];
    unsigned long size_ = 0;
  };

  // Sum of all blocks' sizes.
  unsigned long total() const;
  char* front_data() const { return blocks_.front()->data() + offset_; }
  // An owned copy of the view's bytes; merges the view first.
  oxutils::shared_ptr<Block> copy_bytes();
  void replace_blocks(oxutils::shared_ptr<Block> block);

  BlockList blocks_;
  unsigned long offset_ = 0;  // bytes consumed at the front of the first block
  unsigned long trim_ = 0;    // bytes cut off at the end of the last block
};

#endif  // TARN_SRC_DATA_VIEW_H_
