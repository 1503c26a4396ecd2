// The transport as its peers see it: bytes on the wire, losses, timers, and what hostile peers cannot do.
#include <random>

#include "support/LogCapture.h"
#include "support/UdpRelay.h"

namespace {

Bytes patternOf(size_t size) {
  Bytes bytes;
  for (size_t i = 0; i < size; ++i) bytes += static_cast<char>(i * 7 + i / 1000);
  return bytes;
}

std::atomic<int64_t> g_now{0};
/// A clock that stands at g_now, or is the real one when that is 0.
int64_t testClock() {
  const int64_t stands = g_now;
  return stands != 0 ? stands : nowMs();
}

struct UdpTransport : testing::Test {
  /// Lets the transport come round, so that it has acted on what was before.
  void passRounds(Endpoint& endpoint) {
    const LogCapture rounds;
    for (int i = 0; i < 2; ++i) peer.send(endpoint.localAddress(), datagram(7, 1));
    EXPECT_TRUE(eventually([&] { return rounds.count("t:7,ERR_TYPE") == 2; }));
  }
  const LogCapture log;
  PlainPeer peer;
};

TEST_F(UdpTransport, DatagramsAreTheseBytesInBothDirections) {
  // version, type, dl, checksum, tl, of, sequence, session id, payload
  const Bytes syn = hex("01 04 0000 4bc1e4e8 00000000 00000000 a0860100 0000000000000000");
  const Bytes data = hex("01 01 0300 b4229e11 03000000 00000000 a1860100 8877665544332211 616263");
  const Bytes fin = hex("01 05 0000 9544536a 00000000 00000000 a2860100 0000000000000000");
  const Bytes synAck = hex("01 02 0000 8c9cbd54 00000000 00000000 a0860100 0000000000000000");
  const Bytes dataAck = hex("01 02 0000 9c076f31 03000000 03000000 a1860100 8877665544332211");
  const Bytes finAck = hex("01 02 0000 130286b8 00000000 00000000 a2860100 0000000000000000");
  const LogCapture log(true);
  Endpoint endpoint(10000);
  endpoint.queue(peer.address, 1, "");  // opens the direction and sends nothing else
  endpoint.queue(peer.address, 0x1122334455667788, "abc");
  EXPECT_EQ(peer.receive(), syn);
  EXPECT_EQ(peer.receive(), data) << "sent without waiting for the SYN's acknowledgement";
  peer.send(endpoint.localAddress(), synAck);
  peer.send(endpoint.localAddress(), dataAck);
  EXPECT_TRUE(endpoint.saw(UDP_EVENT_SESSION_FINISH));
  for (const auto& [sent, answer] : {std::pair{syn, synAck}, {data, dataAck}, {fin, finAck}}) {
    peer.send(endpoint.localAddress(), sent);
    EXPECT_EQ(peer.receive(), answer);
  }
  endpoint.stop();
  for (const char* trace :
       {"\"SEND  type:DATA:1 seq:100001 datalen:3 datacrc:0x119e22b4 \"",
        "\"startLoop ,timeout:-1 timer:0 sender:1 checkcnt:[sq:0 0 run:", "\"RECV ret:31 from:127.0.0.1:",
        "\"eventloop: processReceive ret:0  run:", "\"end loop , fd:0 timer:0\""})
    EXPECT_GT(log.count(trace), 0) << trace;
  const auto events = endpoint.events();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[1].sessionId, 0x1122334455667788);
  EXPECT_EQ(events[1].message, "abc");
}

TEST_F(UdpTransport, EveryStateAndPacketHasItsOutcome) {
  const struct {
    const char* what;
    int type;
    uint32_t sequence, of, tl, dl;
    int64_t ackOffset;  // offset of the ACK, or -1 when there is none
    const char* log;    // a line that must appear
  } steps[] = {
      {"DATA before SYN", 1, 100001, 0, 3, 3, -1, "R_IGNORERecvStat"},
      {"FIN before SYN", 5, 9, 0, 0, 4, 0, "maybe retrans fin pkg, ack it anyway."},
      {"ACK without sender", 2, 1, 0, 0, 0, -1, "S_IGNORERecvStat"},
      {"unknown type", 3, 1, 4, 5, 0, -1, " v:1 t:3,ERR_TYPE l:28 dl:0 c:0x0 tl:5 of:4 s:1 sid:7] SS:NUL_SS"},
      {"SYN", 4, 100000, 0, 0, 0, 0, "R_NEW RECEIVER:R["},
      {"SYN again", 4, 100000, 0, 0, 0, 0, ""},
      {"too far ahead", 1, 100002, 0, 3, 3, -1, "R_IGNORERecvSEQ [100002,100001]"},
      {"FIN out of sequence", 5, 100002, 0, 0, 0, -1, "R_IGNORERecvSEQ [100002,100001]"},
      {"first piece", 1, 100001, 0, 2500, 1000, 1000, ""},
      {"second piece", 1, 100002, 1000, 2500, 1000, 2000, ""},
      {"last piece", 1, 100003, 2000, 2500, 500, 2500, ""},
      {"no beginning", 1, 100004, 5, 9, 4, 9, "Not session:7 sessionPair:0 first package offset:5"},
      {"a beginning", 1, 100005, 0, 5000, 10, 10, ""},
      {"wrong offset", 1, 100006, 1000, 5000, 10, 1010, "session:7 offset error:1000 local:10"},
      {"five back", 1, 100002, 1000, 2500, 1000, 2000, ""},
      {"six back", 1, 100001, 0, 2500, 1000, -1, "R_IGNORERecvSEQ [100001,100007]"},
      {"late SYN", 4, 100000, 0, 0, 0, 0, "R_CLEANNewSync"},
      {"which ended the direction", 1, 100007, 0, 3, 3, -1, "R_IGNORERecvSEQ [100007,100001]"},
      {"FIN", 5, 100001, 0, 0, 0, 0, "R_CLOSE RECEIVER:R["},
      {"SYN at the end of the numbers", 4, 0xFFFFFFFF, 0, 0, 0, 0, "R_NEW RECEIVER:R["},
      {"expected 0: 0 - 5 is far above", 1, 0, 0, 3, 3, -1, "R_IGNORERecvSEQ [0,0]"},
  };
  Endpoint endpoint;
  for (const auto& step : steps) {
    const LogCapture log;
    peer.send(endpoint.localAddress(),
              datagram(step.type, step.sequence, step.of, step.tl, Bytes(step.dl, 1)));
    EXPECT_TRUE(*step.log == 0 || eventually([&] { return log.count(step.log) == 1; })) << step.what;
    const bool inMessage = strstr(step.log, "ession:") != nullptr;
    EXPECT_EQ(log.count(inMessage ? "6 [udp.cpp,dataRecv:" : "5 [udp.cpp,processReceive:") > 0,
              *step.log != 0)
        << step.what;
    if (step.ackOffset < 0) continue;  // an answer too many would be taken for that of a later step
    EXPECT_EQ(peer.receive(), datagram(2, step.sequence, step.ackOffset, step.tl)) << step.what;
  }
  ASSERT_EQ(endpoint.events().size(), 1U);
  EXPECT_EQ(endpoint.events()[0].message, Bytes(2500, 1));
}

TEST_F(UdpTransport, AcknowledgementsFreeTheWindowInAnyOrder) {
  Endpoint endpoint(10000);
  endpoint.queue(peer.address, 1, patternOf(6000));
  for (uint32_t sequence = 100000; sequence <= 100005; ++sequence)
    EXPECT_EQ(sequenceOf(peer.receive()), sequence);
  const auto ack = [&](uint32_t sequence) { peer.send(endpoint.localAddress(), datagram(2, sequence)); };
  ack(100001);
  EXPECT_TRUE(eventually([&] { return log.count("S_IGNORERecvSEQ [100001,100000]") == 1; }))
      << "the SYN comes first";
  for (uint32_t sequence : {100000, 100003, 100003}) ack(sequence);
  EXPECT_TRUE(eventually([&] { return log.count("win:100001;100002;4294967295;100004;100005;") == 1; }));
  EXPECT_TRUE(peer.receive(0).empty()) << "the sixth waits for the lowest number";
  ack(100001);
  const Bytes whole = patternOf(6000);
  EXPECT_EQ(peer.receive(), datagram(1, 100006, 5000, 6000, Bytes(whole.begin() + 5000, whole.end()), 1));
}

TEST_F(UdpTransport, SixSendsHalfASecondApartThenOneTimeout) {
  g_now = 1000000;
  Endpoint endpoint(UdpTiming{testClock, UdpTiming().intervalMs});
  endpoint.queue(peer.address, 42, "x");
  ASSERT_EQ(sequenceOf(peer.receive()), 100000U);
  peer.send(endpoint.localAddress(), datagram(2, 100000));
  for (int send = 0; send < 6; ++send) {
    EXPECT_EQ(sequenceOf(peer.receive()), 100001U) << send;
    passRounds(endpoint);
    g_now += 499;
    passRounds(endpoint);
    EXPECT_TRUE(peer.receive(0).empty() && endpoint.events().empty()) << "too early";
    g_now += 1;
  }
  ASSERT_TRUE(endpoint.saw(UDP_EVENT_TIMEOUT));
  g_now += 100000;
  passRounds(endpoint);
  EXPECT_TRUE(peer.receive(0).empty()) << "a seventh";
  ASSERT_EQ(endpoint.events().size(), 1U);
  EXPECT_EQ(endpoint.events()[0].sessionId, 42);
}

TEST_F(UdpTransport, GivenUpPacketBoundsItsSenderUntilItsLateAck) {
  g_now = 1000000;
  Endpoint endpoint(UdpTiming{testClock, 500});
  for (int64_t session = 1; session <= 6; ++session) endpoint.queue(peer.address, session, "x");
  const auto acknowledge = [&](uint32_t sequence) {
    peer.send(endpoint.localAddress(), datagram(2, sequence, 1, 1));
  };
  for (uint32_t sequence = 100000; sequence <= 100005; ++sequence) {
    ASSERT_EQ(sequenceOf(peer.receive()), sequence);
    if (sequence != 100001) acknowledge(sequence);
  }
  ASSERT_TRUE(endpoint.saw(UDP_EVENT_SESSION_FINISH, 4));
  for (int send = 2; send <= 7; ++send) {
    passRounds(endpoint);
    g_now += 500;
    peer.send(endpoint.localAddress(), datagram(7, 1));  // ends the wait in select
    ASSERT_TRUE(send == 7 || sequenceOf(peer.receive()) == 100001U) << "and no number beyond 100005";
  }
  ASSERT_TRUE(endpoint.saw(UDP_EVENT_TIMEOUT));
  EXPECT_EQ(log.count("5 [udp.cpp,processTimeout:"), 6);
  EXPECT_EQ(log.count("]]  !MAXRETRANS!\""), 1);
  EXPECT_EQ(log.count("\"NEW SENDER  S["), 1);
  acknowledge(100001);
  EXPECT_EQ(sequenceOf(peer.receive()), 100006U);
  EXPECT_EQ(log.count("\"event delete failed arg:T["), 1);
}

TEST_F(UdpTransport, MessagesArriveWholeAndInOrderThroughBadWeather) {
  const size_t sizes[] = {1, 999, 1000, 1001, 5000, 5001, 100000};
  for (const Weather& weather :
       {Weather{1, 0, 0, 0, 0}, {2, 30, 0, 0, 0}, {3, 0, 50, 10, 0}, {4, 20, 20, 10, 0}}) {
    SCOPED_TRACE(weather.seed);
    g_now = 1;  // no SYN is sent twice because the machine was slow
    Endpoint left(UdpTiming{testClock, 25}), right;
    Relay relay(right.localAddress(), weather);
    left.queue(relay.address(), 0, patternOf(sizes[0]));
    ASSERT_TRUE(left.saw(UDP_EVENT_SESSION_FINISH));
    g_now = 0;
    for (size_t i = 1; i < std::size(sizes); ++i) left.queue(relay.address(), 0, patternOf(sizes[i]));
    ASSERT_TRUE(left.saw(UDP_EVENT_SESSION_FINISH, std::size(sizes)));
    const auto events = right.events();
    ASSERT_EQ(events.size(), std::size(sizes));
    for (size_t i = 0; i < std::size(sizes); ++i)
      EXPECT_EQ(events[i].message, patternOf(sizes[i])) << sizes[i];
  }
}

TEST_F(UdpTransport, LostSynAckDeliversTheFirstMessagesTwice) {
  g_now = 1;
  Endpoint left(UdpTiming{testClock, 500}), right;
  Relay relay(right.localAddress(), {1, 0, 0, 0, 1});
  for (const char* message : {"1", "2"}) left.queue(relay.address(), 1, message);
  EXPECT_TRUE(eventually([&] { return log.count("S_IGNORERecvSEQ") == 2; }))
      << "DATA's ACKs before the SYN's";
  g_now += 500;
  ASSERT_TRUE(left.saw(UDP_EVENT_SESSION_FINISH, 2));
  std::string order;
  for (const auto& event : right.events()) order += event.message;
  EXPECT_EQ(order, "1212");
}

TEST_F(UdpTransport, HostileDatagramsNeitherStopNorHangIt) {
  std::mt19937 random(20);
  PlainPeer peers[3];
  Endpoint endpoint;
  endpoint.queue(peers[0].address, 1, patternOf(20000));  // its ACKs may come from the storm
  for (int i = 0; i < 3000; ++i) {
    const uint32_t sequences[] = {100000, 100001 + uint32_t(random() % 8), uint32_t(random())};
    const uint32_t lengths[] = {0, uint32_t(random() % 3000), 0xFFFFFFFF - uint32_t(random() % 3)};
    Bytes bytes = datagram(int(random() % 7), sequences[random() % 3], lengths[random() % 3],
                           lengths[random() % 3], Bytes(random() % 1001, 0), int(random() % 4));
    if (random() % 4 == 0) bytes.resize(random() % 1200);
    if (random() % 8 == 0) std::generate(bytes.begin(), bytes.end(), random);
    peers[i % 3].send(endpoint.localAddress(), bytes);
  }
  Endpoint other(500);
  other.queue(endpoint.localAddress(), 99, patternOf(20000));
  EXPECT_TRUE(other.saw(UDP_EVENT_SESSION_FINISH));
  EXPECT_EQ(endpoint.events(UDP_EVENT_DATA).back().message, patternOf(20000));
}

/// The transport's inner operations, called without a thread.
struct Bookkeeping : UDP {
  int recvEvent(int, const sockaddr_in&, int64_t, const uint8_t*, uint32_t) override { return 0; }
  void check() {
    const sockaddr_in peer = loopback(10);
    TimeoutEvent lost;
    lost.peer = peer;
    lost.pkg = newPacket();
    EXPECT_EQ(sendPackage(nullptr, PACKET_DATA, 1, lost.pkg.get()), -1);
    EXPECT_EQ(sendPackage(&peer, PACKET_DATA, 1, lost.pkg.get()), -1) << "no sender";
    EXPECT_EQ(processTimeout(lost), -1) << "no sender";
    Sender& sender = getSender(peer);
    EXPECT_EQ(sendPackage(&peer, PACKET_DATA, 1, lost.pkg.get()), -2);
    EXPECT_EQ(processTimeout(lost), -1) << "not in the window";
    EXPECT_EQ(sendPackage(&peer, 7, 1, lost.pkg.get()), -3);
    EXPECT_EQ(processTimeout(sender.synTimeoutEvent), 0);
  }
};

TEST_F(UdpTransport, BrokenBookkeepingIsNoticed) {
  Bookkeeping().check();
  EXPECT_EQ(log.count("6 [udp.cpp,processTimeout:"), 2);
  EXPECT_EQ(log.count("\"Invalid socket. Not in the list.strAddr:127.0.0.1:10 \""), 1);
}

}  // namespace
