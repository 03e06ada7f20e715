// The heap of a simulated run.
#ifndef TARN_TESTS_SIM_HEAP_H_
#define TARN_TESTS_SIM_HEAP_H_

#include <cstdint>

namespace tarn_sim {

// Blocks and bytes that the library has allocated and not yet freed, whoever frees them. This
// program's operator new counts what is allocated inside the library; its operator delete damages
// what it frees and keeps it for a while, so that a use after it shows.
struct HeapUse {
  int64_t blocks = 0;
  int64_t bytes = 0;
};
HeapUse library_heap();

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_HEAP_H_
