// Views and strings, back and forth.
#ifndef TARN_TESTS_SUPPORT_KIT_BYTES_H_
#define TARN_TESTS_SUPPORT_KIT_BYTES_H_

#include <string>

#include "src/data_view.h"

namespace tarn_test {

// What the view shows. Takes a copy of the view, so the view itself is not merged.
inline std::string text_of(DataView view) {
  const unsigned long size = view.size();
  return size == 0 ? std::string() : std::string(view.data(), size);
}

// A view with bytes of its own.
inline DataView owned_view(std::string text) {
  DataView view(text.data(), text.size());
  view.deep_copy();
  return view;
}

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_KIT_BYTES_H_
