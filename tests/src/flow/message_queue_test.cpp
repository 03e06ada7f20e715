// MessageQueue: order, pieces, places in a message, sizes around the chunks and heads.
#include "src/flow/message_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>

namespace {

std::string pattern(size_t size, unsigned seed) {
  std::string text(size, ' ');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>(seed * 31 + i * 7 + i / 251);
  return text;
}

void push(MessageQueue& queue, const std::string& message, bool begins = true) {
  queue.push(message.data(), message.size(), begins);
}

struct Taken {
  std::string bytes;
  bool begins;
  bool ends;
};

Taken take(MessageQueue& queue, size_t max) {
  Taken taken{std::string(queue.next_size(max), '?'), false, false};
  const MessageQueue::Piece piece = queue.take(&taken.bytes[0], max);
  EXPECT_EQ(piece.size, taken.bytes.size());
  taken.begins = piece.begins;
  taken.ends = piece.ends;
  return taken;
}

TEST(MessageQueue, IsEmptyAtFirst) {
  const MessageQueue queue;
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(queue.messages(), 0u);
  EXPECT_EQ(queue.bytes(), 0u);
}

TEST(MessageQueue, GivesOneMessageAfterTheOther) {
  MessageQueue queue;
  push(queue, "one");
  push(queue, "two!");
  EXPECT_EQ(queue.messages(), 2u);
  EXPECT_EQ(queue.bytes(), 7u);

  EXPECT_EQ(take(queue, 100).bytes, "one");
  EXPECT_EQ(take(queue, 100).bytes, "two!");
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(queue.bytes(), 0u);
}

TEST(MessageQueue, APieceDoesNotReachIntoTheNextMessage) {
  MessageQueue queue;
  push(queue, "abcde");
  push(queue, "f");

  EXPECT_EQ(take(queue, 3).bytes, "abc");
  EXPECT_EQ(queue.messages(), 2u) << "until all of it has gone";
  EXPECT_EQ(queue.next_size(3), 2u);
  EXPECT_EQ(take(queue, 3).bytes, "de");
  EXPECT_EQ(queue.messages(), 1u);
}

TEST(MessageQueue, TellsThePlaceOfAPiece) {
  struct Row {
    size_t size;
    bool has_begun;
    std::string places;  // b: begins, e: ends, w: both, m: neither
  };
  for (const Row& row :
       {Row{1, false, "w"}, Row{4, false, "w"}, Row{5, false, "be"}, Row{12, false, "bme"},
        Row{13, false, "bmme"}, Row{4, true, "e"}, Row{9, true, "mme"}, Row{0, false, "w"}}) {
    MessageQueue queue;
    push(queue, pattern(row.size, 1), !row.has_begun);
    std::string places;
    while (!queue.empty()) {
      const Taken taken = take(queue, 4);
      places += taken.begins ? (taken.ends ? 'w' : 'b') : (taken.ends ? 'e' : 'm');
    }
    EXPECT_EQ(places, row.places) << row.size << (row.has_begun ? " of one that has begun" : "");
  }
}

TEST(MessageQueue, EverySizeAroundAHeadsAndAChunksEndComesOutAsItWas) {
  for (const size_t around : {0, 63, 64, 8191, 8192, 4094, 4096, 2 * 4096, 1 << 20}) {
    for (size_t size = around < 3 ? 0 : around - 3; size <= around + 3; ++size) {
      MessageQueue queue;
      push(queue, "before");
      push(queue, pattern(size, 2));
      push(queue, "after");
      EXPECT_EQ(take(queue, 6).bytes, "before");
      EXPECT_EQ(take(queue, SIZE_MAX).bytes, pattern(size, 2)) << size;
      EXPECT_EQ(take(queue, SIZE_MAX).bytes, "after") << size;
    }
  }
}

TEST(MessageQueue, AgreesWithAListOfTexts) {
  for (unsigned seed = 0; seed < 50; ++seed) {
    std::mt19937 random(seed);
    MessageQueue queue;
    std::deque<std::string> expected;
    size_t bytes = 0;
    for (unsigned step = 0; step < 2000; ++step) {
      if (random() % 2 == 0) {
        const std::string message = pattern(random() % (random() % 8 == 0 ? 9000 : 40), step);
        push(queue, message);
        expected.push_back(message);
        bytes += message.size();
      } else if (!expected.empty()) {
        const size_t max = 1 + random() % 3000;
        const Taken taken = take(queue, max);
        ASSERT_EQ(taken.bytes, expected.front().substr(0, max));
        expected.front().erase(0, taken.bytes.size());
        bytes -= taken.bytes.size();
        ASSERT_EQ(taken.ends, expected.front().empty());
        if (taken.ends) expected.pop_front();
      }
      ASSERT_EQ(queue.messages(), expected.size());
      ASSERT_EQ(queue.bytes(), bytes);
    }
  }
}

}  // namespace
