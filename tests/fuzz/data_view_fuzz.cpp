// A few byte views that share blocks and the caller's memory, against a model made of strings.
#include <memory>
#include <string>
#include <vector>

#include "src/data_view.h"
#include "tests/fuzz/support/exact_copy.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/fuzz_input.h"
#include "tests/fuzz/support/view_model.h"

namespace {

using tarn_fuzz::ExactCopy;
using tarn_fuzz::FuzzInput;
using tarn_fuzz::Memory;
using tarn_fuzz::ViewModel;

constexpr size_t kSlots = 4;
constexpr size_t kMaxBlock = 64;

// Memory of the caller's, as the library sees it and as the model does, and a block to lend.
struct CallerMemory {
  explicit CallerMemory(const std::string& bytes)
      : real(bytes), model(std::make_shared<std::string>(bytes)), block(real.data(), real.size()) {}

  ExactCopy real;
  Memory model;
  Block block;
};

class Script {
 public:
  explicit Script(FuzzInput& input) : input_(input) {}

  void run() {
    while (!input_.empty()) {
      step();
      compare_all();
    }
  }

 private:
  using Step = void (Script::*)();

  void step() {
    static constexpr Step kSteps[] = {&Script::wrap,    &Script::lend,   &Script::own,
                                      &Script::zeros,   &Script::copy,   &Script::move,
                                      &Script::consume, &Script::read,   &Script::write,
                                      &Script::slice,   &Script::append, &Script::deep_copy,
                                      &Script::resize,  &Script::merge,  &Script::change_memory};
    const Step next = kSteps[input_.below(sizeof kSteps / sizeof *kSteps)];
    at_ = input_.below(kSlots);
    (this->*next)();
  }

  DataView& real() { return real_[at_]; }
  ViewModel& model() { return model_[at_]; }

  CallerMemory& new_memory() {
    memory_.push_back(std::make_unique<CallerMemory>(input_.bytes(input_.below(kMaxBlock))));
    return *memory_.back();
  }

  void wrap() {
    CallerMemory& memory = new_memory();
    real() = DataView(memory.real.data(), memory.real.size());
    model() = ViewModel::wrap(memory.model);
  }

  void lend() {
    CallerMemory& memory = new_memory();
    real() = DataView::lend(memory.block);
    model() = ViewModel::lend(memory.model);
  }

  void own() {
    const std::string bytes = input_.bytes(input_.below(kMaxBlock));
    real() = DataView(std::vector<char>(bytes.begin(), bytes.end()));
    model() = ViewModel::own(bytes);
  }

  void zeros() {
    const size_t size = input_.below(kMaxBlock);
    real() = DataView(size);
    model() = ViewModel::own(std::string(size, '\0'));
  }

  void copy() {
    const size_t from = input_.below(kSlots);
    real() = real_[from];
    model() = model_[from];
  }

  void move() {
    const size_t from = input_.below(kSlots);
    if (from == at_) return;
    real() = std::move(real_[from]);
    model() = std::exchange(model_[from], ViewModel());
  }

  void consume() {
    const size_t len = input_.below(kMaxBlock);
    if (!model().can_consume(len)) return;
    real().consume_front(len);
    model().consume(len);
  }

  void read() {
    const size_t kind = input_.below(4);
    const size_t width = kind == 3 ? 4 : kind == 2 ? 2 : 1;
    if (!model().can_read(width)) return;
    const uint32_t expected = model().read(width);
    switch (kind) {
      case 0:
        FUZZ_CHECK(real().read_uint8() == expected);
        break;
      case 1:
        FUZZ_CHECK(static_cast<unsigned char>(real().read_char()) == expected);
        break;
      case 2:
        FUZZ_CHECK(real().read_uint16() == expected);
        break;
      default:
        FUZZ_CHECK(real().read_uint32() == expected);
        break;
    }
  }

  void write() {
    const size_t width = input_.flag() ? 4 : 2;
    const size_t pos = input_.below(kMaxBlock);
    const uint32_t value = input_.u32();
    if (!model().can_write(pos, width)) return;
    if (width == 4) {
      real().write_uint32(pos, value);
    } else {
      real().write_uint16(pos, static_cast<uint16_t>(value));
    }
    model().write(pos, width, value);
  }

  void slice() {
    const size_t to = input_.below(kSlots);
    const size_t len = input_.below(kMaxBlock);
    if (to == at_ || !model().can_slice(len)) return;
    real_[to] = real().slice(len);
    model_[to] = model().slice(len);
  }

  void append() {
    const size_t other = input_.below(kSlots);
    if (model().size() + model_[other].size() > 4096) return;
    real().append(real_[other]);
    model().append(model_[other]);
  }

  void deep_copy() {
    real().deep_copy();
    model().deep_copy();
  }

  void resize() {
    const size_t size = input_.below(kMaxBlock);
    if (!model().can_resize(size, model_)) return;
    real().resize(size);
    model().resize(size);
  }

  void merge() {
    real().merge();
    model().merge();
  }

  void change_memory() {
    if (memory_.empty()) return;
    CallerMemory& memory = *memory_[input_.below(memory_.size())];
    const size_t pos = input_.below(kMaxBlock);
    if (pos >= memory.real.size()) return;
    (*memory.model)[pos] = memory.real.data()[pos] = static_cast<char>(input_.u8());
  }

  void compare_all() {
    for (at_ = 0; at_ < kSlots; ++at_) {
      FUZZ_CHECK(real().size() == model().size());
      FUZZ_CHECK(real().is_exclusive() == model().is_exclusive());
      // Of a copy, since data() merges.
      DataView shown(real());
      const std::string expected = model().text();
      FUZZ_CHECK(expected.empty() ||
                 expected.compare(0, std::string::npos, shown.data(), shown.size()) == 0);
    }
  }

  FuzzInput& input_;
  size_t at_ = 0;
  // Before the views: it outlives them.
  std::vector<std::unique_ptr<CallerMemory>> memory_;
  std::vector<DataView> real_{kSlots};
  std::vector<ViewModel> model_{kSlots};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  Script(input).run();
  return 0;
}
