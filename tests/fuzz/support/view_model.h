// ViewModel: what a DataView is documented to show, told with strings.
#ifndef TARN_TESTS_FUZZ_SUPPORT_VIEW_MODEL_H_
#define TARN_TESTS_FUZZ_SUPPORT_VIEW_MODEL_H_

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

namespace tarn_fuzz {

// Bytes that several blocks may look at; the caller's memory too.
using Memory = std::shared_ptr<std::string>;

// Each operation is called only where its `can_` test, if it has one, allows it.
class ViewModel {
 public:
  ViewModel() = default;
  static ViewModel wrap(const Memory& memory);
  static ViewModel lend(const Memory& memory);
  static ViewModel own(const std::string& bytes);

  std::string text() const;
  size_t size() const { return total() - offset_ - trim_; }
  size_t block_count() const { return blocks_.size(); }
  bool is_exclusive() const;

  void merge();
  bool can_consume(size_t len) const;
  void consume(size_t len) { offset_ += len; }
  // One of 1, 2 and 4 bytes from the front as a big-endian number.
  bool can_read(size_t width) const;
  uint32_t read(size_t width);
  bool can_write(size_t pos, size_t width) const;
  void write(size_t pos, size_t width, uint32_t value);
  bool can_slice(size_t len) const { return !blocks_.empty() && len <= size(); }
  ViewModel slice(size_t len);
  void append(ViewModel& other);
  void deep_copy();
  // `all` are the views that may share the block: none of them may be left with less than nothing.
  bool can_resize(size_t new_size, const std::vector<ViewModel>& all) const;
  void resize(size_t new_size) { blocks_.front()->length = new_size; }

 private:
  struct Block {
    Memory memory;
    size_t length;
    bool is_own;
    bool is_lent;
  };
  using BlockPtr = std::shared_ptr<Block>;

  static BlockPtr own_block(const std::string& bytes);
  std::string all_bytes() const;
  size_t total() const;

  std::vector<BlockPtr> blocks_;
  size_t offset_ = 0;
  size_t trim_ = 0;
};

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_VIEW_MODEL_H_
