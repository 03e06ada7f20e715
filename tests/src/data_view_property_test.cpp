// Any run of operations on a view shows the bytes that the same operations leave in a string.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <string>
#include <vector>

#include "src/data_view.h"
#include "tests/support/kit_bytes.h"

using tarn_test::owned_view;
using tarn_test::text_of;

namespace {

// A view and the bytes it should show. Operations outside a view's preconditions are skipped, so
// that a run can be any sequence of numbers.
struct Modelled {
  DataView view;
  std::string text;
  size_t consumed = 0;   // of the block, at its front
  bool trimmed = false;  // came from slice()
  bool blocks = false;   // there is one to look at

  size_t block_size() const { return consumed + text.size(); }

  void replace(const std::string& bytes) {
    *this = Modelled();
    view = owned_view(bytes);
    text = bytes;
    blocks = true;
  }
  void append(const std::string& bytes) {
    DataView other = owned_view(bytes);
    view.append(other);
    view.merge();
    text += bytes;
    consumed = 0;
    trimmed = false;
    blocks = !text.empty();
  }
  void consume(size_t count) {
    if (!blocks || count > text.size()) return;
    view.consume_front(count);
    text.erase(0, count);
    consumed += count;
  }
  void keep_head(size_t count) {
    if (!blocks || trimmed || count > text.size()) return;
    DataView head = view.slice(count);
    RC_ASSERT(text_of(view) == text.substr(count));
    view = head;
    trimmed = count < text.size();
    text.erase(count);
  }
  void keep_rest(size_t count) {
    if (!blocks || trimmed || count > text.size()) return;
    const DataView head = view.slice(count);
    RC_ASSERT(text_of(head) == text.substr(0, count));
    text.erase(0, count);
    consumed += count;
  }
  // Big-endian number of the first `count` bytes.
  unsigned long front(size_t count) const {
    unsigned long value = 0;
    for (size_t i = 0; i < count; ++i) value = value << 8 | static_cast<unsigned char>(text[i]);
    return value;
  }
  void read(size_t count) {
    if (!blocks || count > text.size() || block_size() <= count) return;
    const unsigned long expected = front(count);
    const unsigned long value = count == 1   ? view.read_uint8()
                                : count == 2 ? view.read_uint16()
                                             : view.read_uint32();
    RC_ASSERT(value == expected);
    text.erase(0, count);
    consumed += count;
  }
};

void apply(Modelled& m, int operation, size_t amount, const std::string& bytes) {
  switch (operation) {
    case 0:
      return m.append(bytes);
    case 1:
      return m.consume(amount);
    case 2:
      return m.keep_head(amount);
    case 3:
      return m.keep_rest(amount);
    case 4:
      return m.read(1);
    case 5:
      return m.read(2);
    case 6:
      return m.read(4);
    case 7:
      return m.view.deep_copy();
    case 8:
      return m.view.merge();
    default:
      return m.replace(bytes);
  }
}

TEST(DataViewProperty, ShowsWhatTheSameOperationsLeaveInAString) {
  EXPECT_TRUE(rc::check([] {
    Modelled m;
    const auto steps = *rc::gen::container<std::vector<int>>(rc::gen::inRange(0, 10));
    for (const int operation : steps) {
      const auto amount = *rc::gen::inRange<size_t>(0, 24);
      const auto bytes = *rc::gen::arbitrary<std::string>();
      apply(m, operation, amount, bytes);
      RC_ASSERT(m.view.size() == m.text.size());
      RC_ASSERT(text_of(m.view) == m.text);
    }
  }));
}

TEST(DataViewProperty, CopiesAreNotDisturbedByTheOriginal) {
  EXPECT_TRUE(rc::check([](const std::string& bytes, const std::string& more) {
    DataView view = owned_view(bytes);
    const DataView copy = view;
    DataView other = owned_view(more);
    view.append(other);
    RC_ASSERT(text_of(copy) == bytes);
    RC_ASSERT(text_of(view) == bytes + more);
  }));
}

TEST(DataViewProperty, WrittenIntegersAreReadBack) {
  EXPECT_TRUE(rc::check([](unsigned short small, unsigned int large) {
    DataView view(7ul);
    view.write_uint16(0, small);
    view.write_uint32(2, large);
    RC_ASSERT(view.read_uint16() == small);
    RC_ASSERT(view.read_uint32() == large);
    RC_ASSERT(view.size() == 1u);
  }));
}

TEST(DataViewProperty, SliceOfATrimmedViewReachesTrimBytesFurther) {
  EXPECT_TRUE(rc::check([] {
    const auto total = *rc::gen::inRange<unsigned long>(1, 64);
    const auto outer = *rc::gen::inRange<unsigned long>(0, total + 1);
    const auto inner = *rc::gen::inRange<unsigned long>(0, outer + 1);
    DataView view(total);
    DataView head = view.slice(outer);
    RC_ASSERT(head.slice(inner).size() == inner + (total - outer));
    RC_ASSERT(head.size() == outer - inner);
  }));
}

}  // namespace
