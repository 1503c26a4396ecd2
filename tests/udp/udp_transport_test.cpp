// The transport on real sockets and its own thread: bytes on the wire, log lines, and its end.
#include <array>
#include <fstream>
#include <future>

#include "support/LogCapture.h"
#include "support/Udp.h"

namespace {

struct UdpTransport : testing::Test {
  const LogCapture log;
  PlainPeer peer;
};

/// Whether a thread of this process sleeps.
bool sleeps(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string word;
  while (stat >> word && word.back() != ')') continue;
  return stat >> word && word == "S";
}

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
  const auto events = endpoint.events();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[1].sessionId, 0x1122334455667788);
  EXPECT_EQ(events[1].message, "abc");
  // What the lines say; the stories of udp_model_test hold which come when.
  for (const Bytes& bytes : {datagram(3, 1, 4, 5), datagram(1, 8), datagram(4, 8),
                             datagram(1, 9, 0, 70 << 20, "abcd"), datagram(1, 3, 0, 1)})
    peer.send(endpoint.localAddress(), bytes);
  EXPECT_TRUE(eventually([&] { return log.count("R_IGNORERecvSEQ [3,9]") == 1; }));
  endpoint.stop();
  for (const char* line :
       {"\"SEND  type:DATA:1 seq:100001 datalen:3 datacrc:0x119e22b4 \"", "\"NEW SENDER  S[",
        " SYN_SENT s:100000 q:0 syn:T[", " v:1 t:3,ERR_TYPE l:28 dl:0 c:0x0 tl:5 of:4 s:1 sid:7] SS:S[",
        " OPEN s:100001 q:0 syn:T[", "to:10000 tc:0 P[", " pkg:NULL]]\"", "RS:NUL_RS\"", "R_NEW RECEIVER:R[",
        "\"session:7 tl:73400320 not acknowledged, it announces more than the budget: 0 of 67108864 bytes "
        "are "})
    EXPECT_GT(log.count(line), 0) << line;
}

// Every third run ends the object itself, while its callers wait inside: whoever is left there would be found
// by AddressSanitizer.
TEST_F(UdpTransport, AnyThreadMayStopItAndNoCallerIsLeftInside) {
  for (int run = 0; run < 99; ++run) {
    auto* const endpoint = new Endpoint(500);
    std::unique_ptr<Endpoint> owner(endpoint);
    endpoint->stopsItselfAt = run % 2 == 0 ? UDP_EVENT_DATA : 0;
    const sockaddr_in nobody = peer.address;
    std::vector<std::future<bool>> callers;
    std::array<std::atomic<pid_t>, 3> tids{};
    std::atomic<int> sent{0};
    for (std::atomic<pid_t>& tid : tids) {
      callers.push_back(std::async(std::launch::async, [&] {
        tid = gettid();
        const Bytes message(6000, 1);
        while (endpoint->send(nobody, reinterpret_cast<const uint8_t*>(message.data()), 6000)) ++sent;
        return true;
      }));
    }
    // One message is on its way, ten wait, and then all callers do.
    ASSERT_TRUE(eventually([&] { return sent >= 11 && std::all_of(tids.begin(), tids.end(), sleeps); }));
    if (run % 2 == 0) {
      peer.send(endpoint->localAddress(), datagram(4, 1));
      peer.send(endpoint->localAddress(), datagram(1, 2, 0, 1, "x"));
    }
    if (run % 3 == 0) {
      owner.reset();
    } else {
      auto other = std::async(std::launch::async, [&] { endpoint->stop(); });
      endpoint->stop();
      other.get();
    }
    for (auto& caller : callers)
      ASSERT_EQ(caller.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  }
  EXPECT_EQ(log.count("6 ["), 0) << "being stopped is no failure";
}

/// A transport whose rounds the test makes.
struct ByHand : UDP {
  using UDP::startLoop;
  ByHand() : UDP(UdpTiming{nowMs, 100000}) { EXPECT_EQ(createSocket(loopback(), "127.0.0.1", 0), 0); }
  ~ByHand() override { stop(); }
  int recvEvent(int, const sockaddr_in&, int64_t, const uint8_t*, uint32_t) override { return 0; }
};

TEST_F(UdpTransport, WhoWaitsForAPlaceGetsItWhileDatagramsComeWithoutEnd) {
  ByHand transport;
  const Bytes bytes(6000, 'm');  // six packets, of which five may be on their way
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  const auto round = [&] {
    peer.send(transport.localAddress(), datagram(2, 1));  // acknowledges nothing
    EXPECT_EQ(transport.startLoop(), 0);
  };
  EXPECT_TRUE(transport.trySend(peer.address, data, 6000));
  round();
  while (transport.trySend(peer.address, data, 6000)) continue;
  std::atomic<pid_t> tid{0};
  auto caller = std::async(std::launch::async,
                           [&] { return tid = gettid(), transport.send(peer.address, data, 6000); });
  EXPECT_TRUE(eventually([&] { return tid != 0 && sleeps(tid); }));
  for (const uint32_t sequence : {100000, 100001}) peer.send(transport.localAddress(), datagram(2, sequence));
  const auto sent = [&] {
    return round(), caller.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  };
  EXPECT_TRUE(eventually(sent)) << "the second message was taken long ago";
  transport.stop();
}

}  // namespace
