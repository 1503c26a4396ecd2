// The request header, byte by byte, and what the packer refuses.
#include "header.h"

#include "bytes.h"
#include "clock.h"
#include "log.h"
#include "support/LogCapture.h"
#include "support/Support.h"

namespace {

const uint8_t kBody[] = {0xAA, 0xBB, 0xCC};

TEST(RequestHeader, GoldenPacket) {
  uint8_t* packet = nullptr;
  uint32_t length = 0;
  const int64_t before = nowUs();
  const int64_t sendTime = genReqPack(0x3EA, kBody, 3, &packet, &length, 0x11223344, 0x0102030405060708);
  const int64_t after = nowUs();
  ASSERT_NE(packet, nullptr);
  const Bytes bytes(reinterpret_cast<char*>(packet), length);
  delete[] packet;
  EXPECT_LE(before, sendTime);
  EXPECT_LE(sendTime, after);
  EXPECT_EQ(readLe<int64_t>(reinterpret_cast<const uint8_t*>(bytes.data()) + 12), sendTime);
  EXPECT_EQ(bytes.substr(0, 12), hex("52434448 0400 EA03 03000000"));
  EXPECT_EQ(bytes.substr(20), hex("44332211 0807060504030201 AABBCC"));
}

TEST(RequestHeader, AcceptsAndRefuses) {
  g_debug = true;
  const struct {
    uint32_t funcid;
    const uint8_t* data;
    int32_t dataLen;
    int64_t result;  // 1 stands for any positive one
    const char* line;
  } cases[] = {
      {1001, nullptr, 0, 1,
       "3 [header.cpp,genReqPack:23]\"getReqPack funcid:1001, dataLen:0 callertid:7 timestamp:-2\""},
      {65535, kBody, 3, 1,
       "3 [header.cpp,genReqPack:23]\"getReqPack funcid:65535, dataLen:3 callertid:7 timestamp:-2\""},
      {65536, kBody, 3, -2,
       "6 [header.cpp,genReqPack:31]\"getReqPack funcid should little then 65535 65536 \""},
      {65536, nullptr, 3, -1, "6 [header.cpp,genReqPack:26]\"getReqPack input data len 3 data:0\""},
      {1001, kBody, -1, -1, "6 [header.cpp,genReqPack:26]\"getReqPack input data len -1 data:"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const LogCapture log;
    uint8_t* packet = nullptr;
    uint32_t length = 0;
    const int64_t result = genReqPack(c.funcid, c.data, c.dataLen, &packet, &length, 7, -2999999);
    EXPECT_EQ(result > 0 ? 1 : result, c.result);
    EXPECT_EQ(packet != nullptr, c.result > 0);
    EXPECT_EQ(log.count(c.line), 1);
    if (packet != nullptr) {
      EXPECT_EQ(length, static_cast<uint32_t>(c.dataLen) + 32);
      EXPECT_EQ(read16le(packet + 6), c.funcid);
    }
    delete[] packet;
  }
  g_debug = false;
}

}  // namespace
