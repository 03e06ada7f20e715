#ifndef TARN_TOOLS_OUTCOME_H_
#define TARN_TOOLS_OUTCOME_H_

#include <string>

#include "tools/exit_status.h"

namespace tarn_tool {

// How a conversation ended.
struct Outcome {
  int status = kSuccess;
  std::string text;        // why, for people; empty when all went well
  bool tell_peer = false;  // the peer cannot know yet
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_OUTCOME_H_
