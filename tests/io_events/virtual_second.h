// A second of virtual time on real sockets: the library's poller asks the system what is ready, but
// waits for nothing; the clock goes on instead.
#ifndef TARN_TESTS_IO_EVENTS_VIRTUAL_SECOND_H_
#define TARN_TESTS_IO_EVENTS_VIRTUAL_SECOND_H_

namespace tarn_test {

// The process's poller turns on the calling thread, on which everything that is watched is told.
// Returns how many passes it makes in a second in which it has to wait for all that is not ready.
int poll_for_a_virtual_second();
// One pass that waits for nothing.
void poll_once();

}  // namespace tarn_test

#endif  // TARN_TESTS_IO_EVENTS_VIRTUAL_SECOND_H_
