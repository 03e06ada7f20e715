// Calls that move no message.
#include <cstdint>
#include <memory>
#include <vector>

#include "tarn/tarn.h"
#include "tests/instructions/count.h"
#include "tests/instructions/ends.h"
#include "tests/instructions/paths.h"

namespace instructions {

namespace {

constexpr int kRounds = 1000;

// A call that does little else than to find its session.
void count_lookup(const Path& path) {
  std::vector<std::unique_ptr<End>> ends;
  for (int i = 0; i < path.operations; ++i) ends.push_back(std::make_unique<End>());
  long found = 0;
  const auto look_up_all = [&] {
    for (const auto& each : ends) found += tarn_get_conv(each->handle());
  };
  count(path, look_up_all);
  require(found == long{path.all_rounds()} * path.operations, path, "a session was not found");
}

void count_bad_handle() {
  const Path path{"lookup_of_bad_handle", kRounds};
  uintptr_t number = 0;  // not always the same: no matter which list of a table it belongs to
  long found = 0;
  count(path, [&] { found += tarn_get_conv(reinterpret_cast<void*>(++number)); });
  require(found == 0, path, "a session was found");
}

void count_setters() {
  End end;
  count(Path{"set_four_callbacks", kRounds}, [&] {
    tarn_set_output_callback(end.handle(), discard, nullptr);
    tarn_set_recv_reliable_callback(end.handle(), discard, nullptr);
    tarn_set_recv_unreliable_callback(end.handle(), discard, nullptr);
    tarn_set_error_callback(end.handle(), nullptr, nullptr);
  });
}

void count_create_and_destroy(const Path& path) {
  int result = 0;
  count(path, [&] { result |= tarn_destroy(tarn_create()); });
  require(result == 0, path, "a session was not found");
}

// The caller's share, the rest waits for the worker; and all of it, on the worker.
void count_create_and_destroy(RestingWorker& worker) {
  count_create_and_destroy(Path{"create_and_destroy_elsewhere", kRounds / 4});
  worker.run([] { count_create_and_destroy(Path{"create_and_destroy_on_worker", kRounds / 4}); });
}

void count_inspection() {
  const Path path{"inspect_datagram", kRounds};
  std::vector<char> datagram = Recorder().record(1, 64).front();
  const int len = static_cast<int>(datagram.size());
  long convs = 0;
  count(path, [&] {
    if (tarn_check_packet(datagram.data(), len) >= 0) {
      convs += tarn_read_packet_conv(datagram.data(), len);
    }
  });
  require(convs == path.all_rounds(), path, "no conversation was found");
}

}  // namespace

void count_calls(RestingWorker& worker) {
  count_lookup(Path{"lookup_among_10", 100, 10});
  count_bad_handle();
  count_setters();
  count_inspection();
  count_create_and_destroy(worker);
}

void count_crowd() { count_lookup(Path{"lookup_among_10000", 2, 10000, 2}); }

}  // namespace instructions
