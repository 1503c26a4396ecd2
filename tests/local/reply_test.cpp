// From the service's bytes to the callback queue: reply framing, its kept count, and the filter.
#include <fstream>

#include "bridge/C2Java.h"
#include "support/HandFedEngine.h"
#include "support/LogCapture.h"
#include "support/Support.h"

namespace {

/// A client object that is only its filter.
struct Filter : ClientProtocal {
  std::shared_ptr<IClientEngine> engine() override { return nullptr; }
  IC2JavaCallback* c2JavaCallback() override { return m_sink; }
  IC2JavaCallback* m_sink = nullptr;
};

const Bytes kPlain = reply(1002, 5, "", 7000000000, 0x1122334455667788);

long residentPages(long* addressed = nullptr) {
  long all = 0, pages = 0;
  std::ifstream("/proc/self/statm") >> all >> pages;
  if (addressed != nullptr) *addressed = all;
  return pages;
}

TEST(ReplyFraming, ALengthCostsNoMemoryForLong) {
  RecordingOwner owner;
  HandFedEngine engine(&owner);
  const Bytes huge = reply(1010, 0).substr(0, 12) + hex("FFFFFF7F") + Bytes(16, '\0');
  const long before = residentPages();
  EXPECT_EQ(engine.read(huge + Bytes(4096, 'x')), 0);
  // The emulator itself keeps a record of each page that is mapped.
  EXPECT_LT(residentPages() - before, getenv("TARN_EMULATED") != nullptr ? 16384 : 1024);

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they keep what is freed for a while
  long addressed = 0, afterwards = 0;
  residentPages(&addressed);
  RecordingOwner listener;
  HandFedEngine reused(&listener);
  for (int i = 0; i < 300; ++i, listener.m_got.clear()) {
    reused.read(kPlain + reply(1011, 0, Bytes(1 << 20, 'b')));
  }
  reused.read(kPlain + reply(1010, 0).substr(0, 12) + hex("00000005") + Bytes(16, '\0'));  // 80 MiB
  for (int i = 0; i < 79; ++i) reused.read(Bytes(1 << 20, 'b'));
  listener.m_got.clear();
  EXPECT_LT(residentPages(&afterwards) - before, 200 << 8) << "what is too long to be delivered is not kept";
  EXPECT_LT(afterwards - addressed, 200 << 8) << "bodies are released";
#endif
}

TEST(ReplyFraming, WhatIsNoReplyIsToldAndEveryPeerIsRefused) {
  const LogCapture log;
  RecordingOwner owner;
  HandFedEngine engine(&owner);
  EXPECT_EQ(engine.read("HDCR" + kPlain.substr(4) + kPlain), -1);
  EXPECT_EQ(
      log.count("6 [client.cpp,recvEvent:175]\"Check Header BEGIN failed:0x52434448 server:0x48444352\""), 1);
  EXPECT_EQ(engine.read(kPlain), 0);
  EXPECT_EQ(owner.m_got, (std::vector<Delivery>{{1002, 0x1122334455667788, 7000000000, 5, ""}}))
      << "only its read is dropped";
  EXPECT_EQ(engine.recvEvent(EVENT_ERROR, 9, 0, nullptr, nullptr, 0), 0);
  EXPECT_EQ(log.count("6 [client.cpp,recvEvent:153]\"LocalsocketClient recvEvent EVENT_ERROR: uid:0 "
                      "path:(null) fd:9  Reconnect now.\""),
            1);
  EXPECT_EQ(engine.recvEvent(EVENT_ACCEPT, 9, 0, "peer", nullptr, 0), -1);
  EXPECT_EQ(log.count("ERR EVENT"), 0) << "debugging is off";
}

TEST(ReplyFilter, PendingPayloadIsBoundedInBytesButOneReportIsAlwaysAdmitted) {
  Callback queue;
  const LogCapture log;
  Filter filter;
  filter.m_sink = &queue;
  const Bytes large(Callback::kPendingBytes + 1, 'x');
  for (const size_t length : {large.size(), size_t{UINT32_MAX}})
    filter.onCallback(0, 1010, 0, 0, 0, at(large), length);
  EXPECT_EQ(log.count("6 [protocol.cpp,onCallback:"), 2) << "dropped unread";
  std::atomic<int> pushed{0};
  std::thread producer([&] {
    for (const size_t length : {large.size(), size_t{1}, Callback::kPendingBytes, size_t{1}}) {
      queue.pushCallback(2, 0, 0, 1010, 0, at(large), length);
      ++pushed;
    }
  });
  for (const int count : {1, 2, 3, 4}) {
    EXPECT_TRUE(eventually([&] { return pushed == count; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(pushed, count);
    queue.take();
  }
  producer.join();
}

TEST(ReplyFilter, QueuesStatusesAndPushesInOrderAndTracesTheRest) {
  const Bytes push = hex("0807 1203010002"), ignored = "\"onCallback c2JavaCallback:0x",
              broken = "\"onCallback ParseFromArray ret:0 c2JavaCallback:0x";
  const struct {
    int funcid, status;
    Bytes data;
    int type;      // 0: nothing is queued
    Bytes queued;  // the data, or the trace of what is not queued
  } cases[] = {
      {1002, 0, "", 0, ignored},
      {1002, 5, "", 1, ""},
      {1010, -1, push, 1, ""},
      {1010, 0, push, 2, hex("010002")},
      {1010, 0, hex("0807 1200"), 2, ""},
      {1010, 0, "", 0, ignored},
      {1010, 0, "\x08", 0, broken},
      {1010, 0, hex("0807"), 0, broken},
      {1011, 0, push, 0, ignored},
  };
  const LogCapture log(true);
  Callback queue;
  Filter filter;
  filter.onCallback(0, 1002, 0, 0, 5, nullptr, 0);
  EXPECT_EQ(log.count("\"onCallback c2JavaCallback:0x0 funcid:1002 data:0x0 len:0\""), 1);
  filter.m_sink = &queue;
  for (const auto& c : cases) {
    const LogCapture traces;
    filter.onCallback(0, c.funcid, 99, 9000, c.status, c.data.empty() ? nullptr : at(c.data), c.data.size());
    EXPECT_EQ(traces.count("3 [protocol.cpp,onCallback:"), c.type == 0 ? 1 : 0);
    EXPECT_TRUE(c.type != 0 || traces.count(c.queued) == 1) << c.queued;
  }
  {
    const LogCapture traces;
    filter.onCallback(0, 1010, 0, 0, 0, nullptr, -4);
    EXPECT_EQ(traces.count("3 [protocol.cpp,onCallback:"), 1) << "over UDP, shorter than a header";
    EXPECT_EQ(traces.count("6 ["), 0);
  }
  for (const auto& c : cases) {
    if (c.type == 0) continue;
    const auto info = queue.take();
    EXPECT_EQ(std::tuple(info.type, info.timestamp, info.status, info.funcid, info.code),
              std::tuple(c.type, c.type == 1 ? 9000 : 0, c.status, c.funcid, c.type == 1 ? 0 : 7));
    EXPECT_EQ(Bytes(reinterpret_cast<char*>(info.data.get()), info.len), c.queued);
    EXPECT_EQ(info.data == nullptr, c.queued.empty());
  }
}

}  // namespace
