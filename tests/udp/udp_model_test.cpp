// Stories of the UDP transport on a clock of their own, each checked against the model throughout.
#include <gtest/gtest.h>

#include <random>

#include "support/UdpModel.h"

namespace {

TEST(UdpModel, WhateverHappensHappensAsInTheModel) {
  std::mt19937 random(4711);
  for (int run = 0; run < 4000; ++run) {
    uint8_t bytes[600];
    std::generate(std::begin(bytes), std::end(bytes), random);
    play(bytes, random() % sizeof(bytes));
  }
}

struct UdpStory : testing::Test {
  /// Rounds until nothing is left to do; which numbers they sent, and the rest of what they did.
  std::string rounds() {
    std::string told, trace;
    do {
      const size_t before = g_wrap.sent.size();
      trace = pair.round();
      for (size_t i = before; i < g_wrap.sent.size(); ++i)
        told += std::to_string(sequenceOf(g_wrap.sent[i].second)) + " ";
      if (trace.find("event ") != Bytes::npos) told += trace.substr(trace.rfind("event "), 15) + "\n";
    } while (trace.compare(0, 5, "wait ") != 0 || trace == "wait 0\n");
    return told + trace;
  }
  std::string at(int64_t now) { return pair.setTime(now), rounds(); }
  std::string acknowledge(uint32_t sequence, uint32_t tl = 1) {
    return pair.deliver(5000, datagram(2, sequence, 1, tl)), rounds();
  }
  /// The number of answers.
  int say(uint16_t port, int type, uint32_t sequence, uint32_t of = 0, uint32_t tl = 0, uint32_t length = 0,
          int64_t id = 1) {
    pair.deliver(port, datagram(type, sequence, of, tl, pattern(id, of, length), id));
    const Bytes trace = pair.round();
    return trace.find("to " + std::to_string(port) + " ") != Bytes::npos ? 1 : 0;
  }
  UdpStory() { pair.setTime(1); }
  Pair pair{udp::kReceiveBudget, udp::kMaxReceivers};
};

TEST_F(UdpStory, FiveOutstandingSixSendsHalfASecondApartAndAPacketThatBoundsItsSender) {
  pair.setTime(1000);
  pair.send(5000, 1, 1);
  for (int64_t id = 2; id < 6; ++id) pair.send(5000, id, id == 3 ? 0 : 1);
  pair.send(5000, 6, 2500);
  EXPECT_EQ(rounds(), "100000 100001 100002 100003 100004 100005 wait 500\n");
  EXPECT_EQ(acknowledge(100001), "wait 500\n") << "the SYN comes first";
  EXPECT_EQ(acknowledge(100000), "wait 500\n");
  EXPECT_EQ(acknowledge(100003), "event 4 5000 4 \nwait 500\n") << "the next waits for the lowest number";
  EXPECT_EQ(at(1499), "wait 1\n");
  EXPECT_EQ(at(1500), "100001 100002 100004 100005 wait 500\n");
  for (uint32_t sequence : {100002, 100004}) acknowledge(sequence);
  EXPECT_EQ(acknowledge(100005, 5), "wait 500\n") << "not the last piece of its message";
  for (int64_t now : {2000, 2500, 3000, 3500}) EXPECT_EQ(at(now), "100001 wait 500\n");
  EXPECT_EQ(at(3999), "wait 1\n");
  EXPECT_EQ(at(4000), "event 1 5000 1 \nwait -1\n") << "given up";
  EXPECT_EQ(at(1000000), "wait -1\n");
  EXPECT_EQ(acknowledge(100001), "event 4 5000 1 \n100006 100007 wait 500\n")
      << "it bounded its sender till now";
}

TEST_F(UdpStory, LimitsAreKeptAndRefusedPiecesAreNotAcknowledged) {
  constexpr uint32_t kBudget = 64 << 20;
  say(1, 4, 0x80000000);
  EXPECT_EQ(say(1, 1, 0x80000001, 0, kBudget + 1, 1000), 0) << "announces too much";
  EXPECT_EQ(say(1, 1, 0x80000001, 0, kBudget, 1000), 1) << "so that this one comes instead";
  for (int64_t id = 2; id <= 16; ++id) EXPECT_EQ(say(1, 1, 0x80000000 + id, 0, 2000, 1000, id), 1);
  EXPECT_EQ(say(1, 1, 0x80000011, 0, 2000, 1000, 17), 0) << "one message too many";
  EXPECT_EQ(rounds(), "wait 60000\n");
  EXPECT_EQ(at(60000), "wait 1\n");
  EXPECT_EQ(at(60001), "wait -1\n") << "unfinished messages do not stay for ever";
  EXPECT_EQ(say(1, 1, 0x80000011, 0, 2000, 1000, 17), 1);
}

}  // namespace
