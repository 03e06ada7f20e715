// TarnConfig: the settings of the process.
#ifndef TARN_SRC_TARN_CONFIG_H_
#define TARN_SRC_TARN_CONFIG_H_

#include "oxutils/relaxed.h"
#include "oxutils/singleton.h"

// Unchecked values, read and written on any thread without a lock, each read when it is used. The
// instance lives for ever: the worker reads settings until the process is gone.
class TarnConfig : public oxutils::singleton<TarnConfig> {
 public:
  static constexpr bool kLivesForEver = true;

  oxutils::relaxed<unsigned int> mtu{1400};             // bytes; copied by each new session
  oxutils::relaxed<unsigned int> rtx_timeout{50};       // ms; taken by each session's start
  oxutils::relaxed<unsigned int> active_timeout{5000};  // ms
  oxutils::relaxed<unsigned int> send_window_size{32};  // segments
  oxutils::relaxed<unsigned int> recv_window_size{32};  // segments
  oxutils::relaxed<unsigned int> reserved{10000};       // part of the record, never used
  oxutils::relaxed<bool> thread_safe{true};             // a stopped test alone takes the state lock
};

#endif  // TARN_SRC_TARN_CONFIG_H_
