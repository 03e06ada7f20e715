// Settings of the library, as a run has them.
#ifndef TARN_TESTS_SIM_SETTINGS_H_
#define TARN_TESTS_SIM_SETTINGS_H_

namespace tarn_sim {

struct Settings {
  unsigned int mtu = 1400;
  unsigned int rtx_timeout = 50;
  unsigned int active_timeout = 5000;
  unsigned int send_window = 32;
  unsigned int recv_window = 32;
  bool thread_safe = true;

  // Whether whatever has arrived is acknowledged in the end: a small mtu has no room for it, and
  // without a repeating cycle it leaves only if data does.
  bool acknowledges() const { return mtu >= 6 && rtx_timeout > 0; }
};

// Makes them the library's.
void apply(const Settings& settings);

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_SETTINGS_H_
