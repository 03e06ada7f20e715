#include "src/tarn_config.h"

// The instance outlives everything: the worker reads settings until the process is gone.
TarnConfig::TarnConfig() { free_ = true; }

TarnConfig::~TarnConfig() = default;
