#include <gtest/gtest.h>

#include "tarn/tarn.h"

extern "C" int tarn_header_from_c(void);
extern "C" int tarn_conversation_from_c(void);

TEST(Header, DeclaresEveryCallForC) { EXPECT_EQ(tarn_header_from_c(), 30); }

TEST(Header, ServesAConversationInC) {
  // "$", version, head of 3 bytes, "hello".
  EXPECT_EQ(tarn_conversation_from_c(), 2 + 3 + 5);
}

TEST(Header, NumbersTheErrors) {
  EXPECT_EQ(TARN_ERROR_SEND_OVERFLOW, 0);
  EXPECT_EQ(TARN_ERROR_RECV_REJECTED, 1);
  EXPECT_EQ(TARN_ERROR_BYE, 2);
  EXPECT_EQ(TARN_ERROR_INACTIVE, 3);
}
