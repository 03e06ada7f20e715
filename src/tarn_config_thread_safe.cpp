// tarn_config_thread_safe, apart from the other calls and from its own declaration.
//
// The header declares the parameter as a bool. Callers with older prototypes pass any integer, of
// which the lowest bit counts; a bool parameter that arrives as 2 would be undefined here, so the
// definition takes the integer that really stands in the argument register.
#include "src/tarn_config.h"

extern "C" __attribute__((visibility("default"))) void tarn_config_thread_safe(unsigned int on);

void tarn_config_thread_safe(unsigned int on) {
  TarnConfig::instance()->thread_safe = (on & 1U) != 0;
}
