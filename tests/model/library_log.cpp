#include "tests/model/library_log.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "tarn/tarn.h"

namespace tarn_model {
namespace {

constexpr int kLevel = 5;

// Never destroyed: the library's threads may log until the process is gone.
struct State {
  std::mutex guard;
  Trace trace;
  uintptr_t object = 0;
  size_t size = 0;
  const char* name = kSession;
};
State& state = *new State;

const char* name_of(uintptr_t address) {
  if (address == state.object) return state.name;
  const bool inside = address > state.object && address < state.object + state.size;
  return inside ? kWindow : kFunction;
}

// `text` with a name for every address.
std::string named(const char* text) {
  std::string result;
  for (const char* found = strstr(text, "0x"); found != nullptr; found = strstr(text, "0x")) {
    result.append(text, found);
    char* end = nullptr;
    result += name_of(strtoull(found, &end, 16));
    text = end;
  }
  return result + text;
}

void name_addresses() {
  for (Event& event : state.trace) {
    const bool has_address =
        event.what == What::kLog && event.bytes.find("0x") != std::string::npos;
    if (has_address) event.bytes = named(event.bytes.c_str());
  }
}

bool begins_with(const char* text, const char* begin) {
  return strncmp(text, begin, strlen(begin)) == 0;
}

bool is_left_out(const char* text) {
  return begins_with(text, "add_timer") || begins_with(text, "cancel_timer") ||
         begins_with(text, "tarn log level");
}

void on_line(int level, const char* text) {
  if (is_left_out(text)) return;
  const std::lock_guard<std::mutex> hold(state.guard);
  state.trace.push_back({What::kLog, level, text});
}

}  // namespace

LibraryLog::LibraryLog() {
  mute(false);
  take();
}

LibraryLog::~LibraryLog() { tarn_set_log_callback2(0, nullptr); }

void LibraryLog::set_name(const void* object, size_t size, const char* name) {
  const std::lock_guard<std::mutex> hold(state.guard);
  state.object = reinterpret_cast<uintptr_t>(object);
  state.size = size;
  state.name = name;
}

void LibraryLog::mute(bool on) { tarn_set_log_callback2(on ? 0 : kLevel, on_line); }

void LibraryLog::use_names() {
  const std::lock_guard<std::mutex> hold(state.guard);
  name_addresses();
}

void LibraryLog::add(Event event) {
  const std::lock_guard<std::mutex> hold(state.guard);
  state.trace.push_back(std::move(event));
}

Trace LibraryLog::take() {
  Trace taken;
  const std::lock_guard<std::mutex> hold(state.guard);
  name_addresses();
  taken.swap(state.trace);
  return taken;
}

}  // namespace tarn_model
