// The transport as its peers see it: bytes on the wire, losses, timers, and what hostile peers cannot do.
#include <fcntl.h>
#include <sys/resource.h>

#include <random>

#include "udp_relay.h"

namespace {

using UdpTransport = UdpTest;

Bytes unhex(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
  Bytes bytes;
  for (size_t at = 0; at < text.size(); at += 2) bytes.push_back(std::stoi(text.substr(at, 2), nullptr, 16));
  return bytes;
}

Bytes patternOf(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = i * 7 + i / 1000;
  return bytes;
}

TEST_F(UdpTransport, DatagramsAreTheseBytesInBothDirections) {
  // version, type, dl, checksum, tl, of, sequence, session id, payload
  const Bytes syn = unhex("01 04 0000 4bc1e4e8 00000000 00000000 a0860100 0000000000000000");
  const Bytes data = unhex("01 01 0300 b4229e11 03000000 00000000 a1860100 8877665544332211 616263");
  const Bytes fin = unhex("01 05 0000 9544536a 00000000 00000000 a2860100 0000000000000000");
  const Bytes synAck = unhex("01 02 0000 8c9cbd54 00000000 00000000 a0860100 0000000000000000");
  const Bytes dataAck = unhex("01 02 0000 9c076f31 03000000 03000000 a1860100 8877665544332211");
  const Bytes finAck = unhex("01 02 0000 130286b8 00000000 00000000 a2860100 0000000000000000");
  PlainPeer peer;
  Endpoint endpoint(10000);
  endpoint.queue(peer.address, 1, {});  // opens the direction and sends nothing else
  endpoint.queue(peer.address, 0x1122334455667788, {'a', 'b', 'c'});
  EXPECT_EQ(peer.receive(), syn);
  EXPECT_EQ(peer.receive(), data) << "sent without waiting for the SYN's acknowledgement";
  peer.send(endpoint.localAddress(), synAck);
  peer.send(endpoint.localAddress(), dataAck);
  EXPECT_TRUE(endpoint.saw(UDP_EVENT_SESSION_FINISH));
  for (const auto& [sent, answer] : {std::pair{syn, synAck}, {data, dataAck}, {fin, finAck}}) {
    peer.send(endpoint.localAddress(), sent);
    EXPECT_EQ(peer.receive(), answer);
  }
  const auto events = endpoint.events.all();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[1].sessionId, 0x1122334455667788);
  EXPECT_EQ(events[1].message, Bytes({'a', 'b', 'c'}));
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
      {"unknown type", 3, 1, 0, 0, 0, -1, "t:3,ERR_TYPE"},
      {"SYN", 4, 100000, 0, 0, 0, 0, "R_NEW RECEIVER:R["},
      {"SYN again", 4, 100000, 0, 0, 0, 0, ""},
      {"too far ahead", 1, 100002, 0, 3, 3, -1, "R_IGNORERecvSEQ [100002,100001]"},
      {"FIN out of sequence", 5, 100002, 0, 0, 0, -1, "R_IGNORERecvSEQ [100002,100001]"},
      {"first piece", 1, 100001, 0, 2500, 1000, 1000, ""},
      {"second piece", 1, 100002, 1000, 2500, 1000, 2000, ""},
      {"second piece again", 1, 100002, 1000, 2500, 1000, 2000, ""},
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
  PlainPeer peer;
  Endpoint endpoint;
  for (const auto& step : steps) {
    g_log.all(true);
    peer.send(endpoint.localAddress(),
              datagram(step.type, step.sequence, step.of, step.tl, Bytes(step.dl, 1)));
    EXPECT_TRUE(logged(step.log, *step.log != 0)) << step.what;
    if (step.ackOffset < 0) continue;  // an answer too many would be taken for that of a later step
    EXPECT_EQ(peer.receive(), datagram(2, step.sequence, step.ackOffset, step.tl)) << step.what;
  }
  ASSERT_EQ(endpoint.events.all().size(), 1U);
  EXPECT_EQ(endpoint.events.all()[0].message, Bytes(2500, 1));
}

TEST_F(UdpTransport, AcknowledgementsFreeTheWindowInAnyOrder) {
  PlainPeer peer;
  Endpoint endpoint(10000);
  endpoint.queue(peer.address, 1, patternOf(6000));
  for (uint32_t sequence = 100000; sequence <= 100005; ++sequence)
    EXPECT_EQ(sequenceOf(peer.receive()), sequence);
  const auto ack = [&](uint32_t sequence) { peer.send(endpoint.localAddress(), datagram(2, sequence)); };
  ack(100001);
  EXPECT_TRUE(logged("S_IGNORERecvSEQ [100001,100000]")) << "the SYN comes first";
  for (uint32_t sequence : {100000, 100003, 100003}) ack(sequence);
  EXPECT_TRUE(logged("win:100001;100002;4294967295;100004;100005;")) << "S_IGNORERecvWIN";
  EXPECT_TRUE(peer.receive(0).empty()) << "the sixth waits for the lowest number";
  ack(100001);
  const Bytes whole = patternOf(6000);
  EXPECT_EQ(peer.receive(), datagram(1, 100006, 5000, 6000, Bytes(whole.begin() + 5000, whole.end()), 1));
}

std::atomic<int64_t> g_now{1000000};

TEST_F(UdpTransport, SixSendsHalfASecondApartThenOneTimeout) {
  PlainPeer peer;
  UdpTiming timing;  // but for the clock, what everybody gets
  timing.now = [] { return g_now.load(); };
  Endpoint endpoint(timing);
  const auto passRounds = [&] {
    g_log.all(true);
    for (int i = 0; i < 2; ++i) peer.send(endpoint.localAddress(), datagram(7, 1));
    EXPECT_TRUE(logged("t:7,ERR_TYPE", 2));
  };
  endpoint.queue(peer.address, 42, {1});
  ASSERT_EQ(sequenceOf(peer.receive()), 100000U);
  peer.send(endpoint.localAddress(), datagram(2, 100000));
  for (int send = 0; send < 6; ++send) {
    EXPECT_EQ(sequenceOf(peer.receive()), 100001U) << send;
    passRounds();
    g_now += 499;
    passRounds();
    EXPECT_TRUE(peer.receive(0).empty() && endpoint.events.all().empty()) << "too early";
    g_now += 1;
  }
  ASSERT_TRUE(endpoint.saw(UDP_EVENT_TIMEOUT));
  g_now += 100000;
  passRounds();
  EXPECT_TRUE(peer.receive(0).empty()) << "a seventh";
  ASSERT_EQ(endpoint.events.all().size(), 1U);
  EXPECT_EQ(endpoint.events.all()[0].sessionId, 42);
}

TEST_F(UdpTransport, GivenUpPacketBoundsItsSenderUntilItsLateAck) {
  PlainPeer peer;
  Endpoint endpoint;
  for (int64_t session = 1; session <= 6; ++session) endpoint.queue(peer.address, session, {1});
  uint32_t highest = 0;
  for (bool givenUp = false; !givenUp;) {
    const uint32_t sequence = sequenceOf(peer.receive(5));
    highest = std::max(highest, sequence);
    if (sequence > 100001 || sequence == 100000)
      peer.send(endpoint.localAddress(), datagram(2, sequence, 1, 1));
    for (const auto& event : endpoint.events.all()) givenUp |= event.event == UDP_EVENT_TIMEOUT;
  }
  EXPECT_TRUE(endpoint.saw(UDP_EVENT_SESSION_FINISH, 4));
  EXPECT_EQ(highest, 100005U);
  peer.send(endpoint.localAddress(), datagram(2, 100001, 1, 1));
  EXPECT_TRUE(logged("event delete failed arg:T["));
  while (sequenceOf(peer.receive()) != 100006) ASSERT_FALSE(HasFailure());
}

TEST_F(UdpTransport, MessagesArriveWholeAndInOrderThroughBadWeather) {
  const size_t sizes[] = {1, 999, 1000, 1001, 5000, 5001, 100000};
  for (const Weather& weather :
       {Weather{1, 0, 0, 0, 0}, {2, 30, 0, 0, 0}, {3, 0, 50, 10, 0}, {4, 20, 20, 10, 0}}) {
    SCOPED_TRACE(weather.seed);
    Endpoint left, right;
    Relay relay(right.localAddress(), weather);
    for (size_t size : sizes) EXPECT_TRUE(left.send(relay.address(), patternOf(size).data(), size));
    ASSERT_TRUE(right.saw(UDP_EVENT_DATA, std::size(sizes)));
    EXPECT_TRUE(left.saw(UDP_EVENT_SESSION_FINISH, std::size(sizes)));
    const auto events = right.events.all();
    ASSERT_EQ(events.size(), std::size(sizes));
    for (size_t i = 0; i < std::size(sizes); ++i)
      EXPECT_EQ(events[i].message, patternOf(sizes[i])) << sizes[i];
  }
}

TEST_F(UdpTransport, LostSynAckDeliversTheFirstMessagesTwice) {
  Endpoint left, right;
  Relay relay(right.localAddress(), {1, 0, 0, 0, 1});
  for (uint8_t number : {1, 2}) left.queue(relay.address(), number, {number});
  ASSERT_TRUE(right.saw(UDP_EVENT_DATA, 4));
  std::string order;
  for (const auto& event : right.events.all()) order += std::to_string(event.message[0]);
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
    Bytes bytes = datagram(random() % 7, sequences[random() % 3], lengths[random() % 3],
                           lengths[random() % 3], Bytes(random() % 1001), random() % 4);
    if (random() % 4 == 0) bytes.resize(random() % 1200);
    if (random() % 8 == 0) std::generate(bytes.begin(), bytes.end(), random);
    peers[i % 3].send(endpoint.localAddress(), bytes);
  }
  Endpoint other;
  other.queue(endpoint.localAddress(), 99, patternOf(20000));
  EXPECT_TRUE(endpoint.events.waitFor([](const auto& event) { return event.sessionId == 99; }));
  EXPECT_TRUE(other.saw(UDP_EVENT_SESSION_FINISH));
}

TEST_F(UdpTransport, WorksOnDescriptorsAbove1023) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < 1200) GTEST_SKIP() << "the system allows too few descriptors";
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 1200);
  setrlimit(RLIMIT_NOFILE, &limit);
  std::vector<int> taken;
  while (taken.empty() || taken.back() < 1030) taken.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  Endpoint left, right;
  for (int fd : taken) close(fd);
  left.queue(right.localAddress(), 1, patternOf(3000));
  EXPECT_TRUE(right.saw(UDP_EVENT_DATA));
}

/// The transport's inner operations, called without a thread.
struct Bookkeeping : UDP {
  int recvEvent(int, const sockaddr_in&, int64_t, const uint8_t*, uint32_t) override { return 0; }
  void check() {
    const sockaddr_in peer = loopback(10), stranger = loopback(9);
    TimeoutEvent lost;
    lost.peer = stranger;
    lost.pkg = newPacket();
    UdpPkg* packet = lost.pkg.get();
    EXPECT_EQ(sendPackage(nullptr, PACKET_DATA, 1, packet), -1);
    EXPECT_EQ(sendPackage(&stranger, PACKET_DATA, 1, packet), -1);
    EXPECT_EQ(processTimeout(lost), -1) << "nobody's";
    lost.peer = peer;
    Sender& sender = getSender(peer);
    EXPECT_EQ(sendPackage(&peer, PACKET_DATA, 1, packet), -2);
    EXPECT_EQ(sendPackage(&peer, 7, 1, packet), -3);
    for (PacketType type : {PACKET_SYN, PACKET_FIN, PACKET_DATA}) {
      packet->type = type;
      EXPECT_EQ(processTimeout(lost), -1) << packetTypeName(type);
    }
    EXPECT_EQ(m_timers.size(), 1) << "the SYN's alone";
    EXPECT_EQ(processTimeout(sender.synTimeoutEvent), 0);
    EXPECT_EQ(sender.synTimeoutEvent.tc, 1);
  }
};

TEST_F(UdpTransport, BrokenBookkeepingIsNoticed) {
  Bookkeeping().check();
}

}  // namespace
