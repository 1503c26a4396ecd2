// The engine over UDP: requests out, replies in, and an end that does not wait.
#include "base/log.h"
#include "support/LogCapture.h"
#include "support/Udp.h"
#include "udp/UdpClient.h"

namespace {

/// An owner that logs replies.
struct Owner : ClientProtocal {
  void onCallback(int32_t event, int32_t funcid, int64_t word16, int64_t timestamp, int32_t status,
                  const uint8_t* data, int32_t len) override {
    const std::string body = data != nullptr ? std::string(data, data + len) : "null";
    LOG_WARN("reply %d %d %d %d %d %d %s", event, funcid, int(word16), int(timestamp), status, len,
             body.c_str());
  }
  std::shared_ptr<IClientEngine> engine() override { return nullptr; }
  IC2JavaCallback* c2JavaCallback() override { return nullptr; }
};

struct UdpClientTest : testing::Test {
  std::unique_ptr<UdpClient> startClient() {
    return startUdpClient(&owner, "127.0.0.1", ntohs(peer.address.sin_port));
  }
  bool logged(const std::string& line) {
    return eventually([&] { return log.count(line) == 1; });
  }
  const LogCapture log;
  Owner owner;
  PlainPeer peer;
};

TEST_F(UdpClientTest, RequestsGoToTheServiceAndRepliesToTheOwner) {
  const auto client = startClient();
  ASSERT_TRUE(client != nullptr && client->isRunning());
  const uint8_t body[] = {'h', 'i'};
  EXPECT_EQ(client->sendReq(65536, body, 2, 42, 43), -2);
  const int64_t sendTime = client->sendReq(1002, body, 2, 42, 43);
  peer.receive();  // the SYN: the refused request sent nothing
  const Bytes data = peer.receive();
  ASSERT_EQ(data.size(), 28U + 32U + 2U);
  EXPECT_EQ(memcmp(&data[28 + 12], &sendTime, sizeof(sendTime)), 0);

  const struct {
    size_t length;
    uint16_t funcid;
    const char* delivered;
  } rows[] = {{36, 65522, "reply 0 -14 16 24 5 4 body\""},
              {32, 1010, "reply 0 1010 16 24 5 0 \""},
              {31, 1010, "reply 0 1010 16 24 5 -1 null\""},
              {9, 1010, "reply 0 1010 0 0 5 -23 null\""},
              {1, 1010, "reply 0 0 0 0 0 -31 null\""}};
  peer.send(peer.from, datagram(4, 100000));
  uint32_t sequence = 100000;
  for (const auto& row : rows) {
    const Bytes cut = reply(row.funcid, 5, "body", 24, 16).substr(0, row.length);
    peer.send(peer.from, datagram(1, ++sequence, 0, cut.size(), cut));
    EXPECT_TRUE(logged(row.delivered)) << row.delivered;
  }
  EXPECT_EQ(client->recvEvent(UDP_EVENT_CLOSE, loopback(), 1, nullptr, 0), 0);
  EXPECT_EQ(client->recvEvent(5, loopback(), 1, nullptr, 0), -1);
}

TEST_F(UdpClientTest, DeletionWaitsForNoRetransmission) {
  constexpr int kCycles = 30;
  const auto start = std::chrono::steady_clock::now();
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    const auto client = startClient();
    ASSERT_TRUE(client != nullptr && client->sendReq(1003, nullptr, 0, 1, 1) > 0);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kCycles * 500));
  EXPECT_EQ(UdpClient(nullptr).createSocket(peer.address, "taken", 0), -1);
  EXPECT_EQ(startUdpClient(&owner, "not.an.address", 9), nullptr);
}

}  // namespace
