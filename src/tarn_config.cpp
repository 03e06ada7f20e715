#include "src/tarn_config.h"

TarnConfig::TarnConfig() = default;

TarnConfig::~TarnConfig() = default;
