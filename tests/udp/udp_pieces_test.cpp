// The transport's small pieces: packets, timers, the window and reassembly.
#include "support/Udp.h"

namespace {

TEST(UdpPacket, OnlyIntactDatagramsAreAccepted) {
  EXPECT_EQ(crc32(reinterpret_cast<const uint8_t*>("123456789"), 9), 0xCBF43926);
  UdpPkg packet;
  const auto intact = [&](const Bytes& bytes, int64_t received) {
    memcpy(&packet, bytes.data(), bytes.size());
    return isIntact(packet, received);
  };
  const Bytes good = datagram(1, 5, 0, 3, "abc");
  for (int received : {31, 1028}) EXPECT_TRUE(intact(good, received)) << "surplus bytes do no harm";
  for (int received : {-1, 0, 27, 30}) EXPECT_FALSE(intact(good, received)) << received;
  for (size_t byte = 0; byte < good.size(); ++byte) {
    Bytes bad = good;
    bad[byte] ^= 0x10;
    EXPECT_FALSE(intact(bad, 1028)) << byte;
  }
  EXPECT_TRUE(intact(datagram(1, 5, 0, 1000, Bytes(1000, 0)), 1028));
  packet.dataLength = 1001;
  EXPECT_FALSE(isIntact(packet, 1029));
}

TEST(UdpTimers, FallDueInOrderAndTiesInOrderOfArrival) {
  TimeoutEvent records[5];
  const int64_t expiries[5] = {30, 10, 30, 20, 10};
  TimerList timers;
  for (int i = 0; i < 5; ++i) {
    records[i].expiry = expiries[i];
    timers.insert(&records[i]);
  }
  EXPECT_TRUE(timers.remove(&records[3]));
  EXPECT_FALSE(timers.remove(&records[3]));
  const auto front = timers.front();
  records[1].expiry = 5;  // armed anew while its old node is in front, and the clock has gone back
  timers.insert(&records[1]);
  EXPECT_EQ(timers.front(), front);
  timers.erase(front);
  for (int expected : {1, 4, 0, 2}) {
    EXPECT_EQ(*timers.front() - records, expected);
    timers.erase(timers.front());
  }
  EXPECT_TRUE(timers.empty());
}

TEST(UdpWindow, FillsFromTheLastSlotAndHoldsFiveConsecutiveNumbers) {
  SendWindow window;
  const auto put = [&](uint32_t sequence) {
    TimeoutEvent* slot = window.slotFor(sequence);
    if (slot != nullptr) (slot->pkg = newPacket())->sequence = sequence;
    return slot != nullptr;
  };
  for (uint32_t sequence : {100001, 100002}) ASSERT_TRUE(put(sequence));
  EXPECT_EQ(window.text(), "100001;100002;4294967295;4294967295;4294967295;");
  for (uint32_t sequence : {100003, 100004, 100005}) ASSERT_TRUE(put(sequence));
  EXPECT_FALSE(put(100006)) << "no free slot";
  window.find(100003)->pkg.reset();
  EXPECT_FALSE(put(100006)) << "100001 is 5 back";
  window.find(100001)->pkg.reset();
  EXPECT_TRUE(put(100006));
  EXPECT_EQ(window.text(), "100006;100002;4294967295;100004;100005;");
  for (TimeoutEvent& slot : window.slots()) slot.pkg.reset();
  EXPECT_TRUE(put(UINT32_MAX)) << "an empty window bounds nothing";
  EXPECT_TRUE(put(0)) << "plain numbers: not beyond 4294967295 + 4, which is 3";
  EXPECT_FALSE(put(5));
}

TEST(UdpReassembly, EveryPieceIsCheckedBeforeItIsCopied) {
  using Outcome = Reassembly::Outcome;
  const struct {
    const char* what;
    int64_t session;
    uint32_t of, tl, dl;
    Outcome outcome;
    uint32_t received;  // of the session, afterwards
  } pieces[] = {
      {"a beginning beyond its end", 1, 0, 999, 1000, Outcome::WRONG_FIRST, 0},
      {"first", 1, 0, 2500, 1000, Outcome::STORED, 1000},
      {"another message between", 2, 0, 3, 3, Outcome::COMPLETE, 3},
      {"a gap", 1, 2000, 2500, 500, Outcome::WRONG_OFFSET, 1000},
      {"another total", 1, 1000, 2600, 1000, Outcome::WRONG_OFFSET, 1000},
      {"second", 1, 1000, 2500, 1000, Outcome::STORED, 2000},
      {"beyond the end", 1, 2000, 2500, 501, Outcome::WRONG_OFFSET, 2000},
      {"last", 1, 2000, 2500, 500, Outcome::COMPLETE, 2500},
      {"an end that wraps", 1, 0xFFFFFFFF, 2500, 1000, Outcome::WRONG_OFFSET, 2500},
      {"nothing at all", 3, 0, 0, 0, Outcome::COMPLETE, 0},
      {"four gigabytes, claimed", 4, 0, 0xFFFFFFFF, 1000, Outcome::STORED, 1000},
  };
  Reassembly sessions;
  UdpPkg packet{};
  for (const auto& piece : pieces) {
    const Bytes bytes =
        datagram(1, 0, piece.of, piece.tl, Bytes(piece.dl, char(piece.of / 1000)), piece.session);
    memcpy(&packet, bytes.data(), bytes.size());
    EXPECT_EQ(sessions.add(packet), piece.outcome) << piece.what;
    const RecvSession* session = sessions.find(piece.session);
    EXPECT_EQ(session != nullptr ? session->received : 0, piece.received) << piece.what;
    EXPECT_TRUE(session == nullptr || session->capacity <= std::max(2 * session->received, 1U)) << piece.what;
  }
  for (uint32_t byte = 0; byte < 2500; ++byte) ASSERT_EQ(sessions.find(1)->buffer[byte], byte / 1000);
  for (packet.sessionId = 100; packet.sessionId < 200; ++packet.sessionId) sessions.add(packet);
  EXPECT_EQ(sessions.size(), 16) << "messages in the making are bounded";
}

}  // namespace
