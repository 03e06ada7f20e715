#include "tools/transfer_message.h"

#include <gtest/gtest.h>

#include <random>

using namespace tarn_tool;

namespace {

template <typename T>
T round_trip(const T& message) {
  const std::string bytes = encode(message);
  const auto parsed = parse_message(bytes);
  if (!parsed || !std::holds_alternative<T>(*parsed)) {
    ADD_FAILURE() << "no round trip";
    return {};
  }
  return std::get<T>(*parsed);
}

Sha256 some_digest() {
  Sha256 digest = {};
  for (std::size_t i = 0; i < digest.size(); ++i) digest[i] = static_cast<std::uint8_t>(i + 200);
  return digest;
}

const std::vector<Message>& one_of_each() {
  static const std::vector<Message> messages{
      Hello{1400},           Welcome{512}, Offer{7, "name"}, Data{"bytes"},
      End{7, some_digest()}, Done{},       Result{},         Abort{"why"},
  };
  return messages;
}

}  // namespace

TEST(TransferMessage, HelloKeepsItsFields) { EXPECT_EQ(round_trip(Hello{65000}).mtu, 65000u); }

TEST(TransferMessage, OfferKeepsItsFields) {
  const Offer offer = round_trip(Offer{std::uint64_t{1} << 40, "a name"});
  EXPECT_EQ(offer.size, std::uint64_t{1} << 40);
  EXPECT_EQ(offer.name, "a name");
}

TEST(TransferMessage, AStreamHasNoSize) {
  EXPECT_EQ(round_trip(Offer{std::nullopt, "stdin"}).size, std::nullopt);
}

TEST(TransferMessage, EndKeepsItsFields) {
  const End end = round_trip(End{12345678901, some_digest()});
  EXPECT_EQ(end.size, 12345678901u);
  EXPECT_EQ(end.digest, some_digest());
}

TEST(TransferMessage, ResultKeepsItsFields) {
  const Result result = round_trip(Result{true, 5, some_digest()});
  EXPECT_TRUE(result.agreed);
  EXPECT_EQ(result.size, 5u);
  EXPECT_EQ(result.digest, some_digest());
}

TEST(TransferMessage, TheOthersKeepTheirFields) {
  EXPECT_EQ(round_trip(Welcome{1024}).window, 1024u);
  EXPECT_EQ(round_trip(Abort{"disk full"}).reason, "disk full");
  round_trip(Done{});
}

TEST(TransferMessage, DataIsAViewOfItsMessage) {
  const std::string bytes = encode(Data{"payload"});

  const auto parsed = parse_message(bytes);

  ASSERT_TRUE(parsed);
  EXPECT_EQ(std::get<Data>(*parsed).bytes, "payload");
  EXPECT_EQ(std::get<Data>(*parsed).bytes.data(), bytes.data() + kDataHeadSize);
}

TEST(TransferMessage, EverythingButDataFitsTheSmallestMtu) {
  const std::string longest(1000, 'n');
  for (const Message& message :
       std::vector<Message>{Offer{1, longest}, Abort{longest}, Hello{}, End{}, Result{}}) {
    EXPECT_LE(encode(message).size(), kMinMtu);
  }
}

TEST(TransferMessage, NamesAndReasonsAreCut) {
  EXPECT_EQ(round_trip(Offer{1, std::string(300, 'n')}).name.size(), kMaxName);
  EXPECT_EQ(round_trip(Abort{std::string(300, 'r')}).reason.size(), kMaxReason);
}

TEST(TransferMessage, FixedFieldsMayNotBeShortOrLong) {
  for (const Message& message :
       std::vector<Message>{Hello{1400}, Welcome{512}, End{}, Done{}, Result{}}) {
    const std::string bytes = encode(message);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
      EXPECT_FALSE(parse_message(bytes.substr(0, size))) << message.index() << " cut to " << size;
    }
    EXPECT_FALSE(parse_message(bytes + "x")) << message.index();
  }
}

TEST(TransferMessage, WhatMakesNoSenseIsRefused) {
  EXPECT_FALSE(parse_message(""));
  EXPECT_FALSE(parse_message(std::string(1, '\0')));
  EXPECT_FALSE(parse_message("\x09"));
  EXPECT_FALSE(parse_message(encode(Data{""})));
  EXPECT_FALSE(parse_message(encode(Offer{1, ""})));
  EXPECT_FALSE(parse_message(encode(Offer{1, "n"}) + std::string(kMaxName, 'n')));
  EXPECT_FALSE(parse_message(encode(Welcome{0})));
  EXPECT_FALSE(parse_message(encode(Hello{kMinMtu - 1})));
  EXPECT_FALSE(parse_message(encode(Hello{kMaxHelloMtu + 1})));
}

TEST(TransferMessage, AnotherGreetingIsRefused) {
  std::string bytes = encode(Hello{1400});
  bytes[15] = '1';
  EXPECT_FALSE(parse_message(bytes));
}

TEST(TransferMessage, NoBytesAreReadOutside) {
  std::mt19937 random(7);
  for (int round = 0; round < 20000; ++round) {
    std::string bytes = encode(one_of_each()[random() % one_of_each().size()]);
    bytes.resize(random() % (bytes.size() + 4));
    if (!bytes.empty()) bytes[random() % bytes.size()] = static_cast<char>(random());
    // On the heap and of the exact size, so that a read outside is seen.
    const std::vector<char> exact(bytes.begin(), bytes.end());
    parse_message({exact.data(), exact.size()});
  }
}
