// What is tried on a session.
#ifndef TARN_TESTS_MODEL_SESSION_DRAW_H_
#define TARN_TESTS_MODEL_SESSION_DRAW_H_

#include <string>

#include "tests/model/model_session.h"
#include "tests/model/random.h"

namespace tarn_model {

// Segments that matter where the session stands: in and out of order, repeated, acknowledging what
// is and what is not outstanding; some of them malformed.
std::string draw_datagram(Random& random, const ModelSession& session);

SessionOp draw_session_op(Random& random, const ModelSession& session);

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_SESSION_DRAW_H_
