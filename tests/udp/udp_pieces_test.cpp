// The transport's small pieces, where the stories of udp_model_test do not reach.
#include <random>

#include "support/Udp.h"
#include "udp/crc32.h"

namespace {

TEST(UdpPacket, EveryWayToTheChecksumAgreesWithItsDefinition) {
  std::mt19937 random(3);
  uint8_t bytes[1100];
  std::generate(std::begin(bytes), std::end(bytes), random);
  EXPECT_EQ(crc32(reinterpret_cast<const uint8_t*>("123456789"), 9), 0xCBF43926);
  for (uint32_t length = 0; length < 1050; ++length) {
    const uint8_t* start = bytes + random() % 50;
    uint32_t expected = ~0U;
    for (uint32_t i = 0; i < length; ++i) {
      expected ^= start[i];
      for (int bit = 0; bit < 8; ++bit)
        expected = (expected & 1) != 0 ? expected >> 1 ^ 0xEDB88320 : expected >> 1;
    }
    for (unsigned way = 0; udp::crcWay(way) != nullptr; ++way)
      ASSERT_EQ(udp::crcWay(way)->update(~0U, start, length), expected) << udp::crcWay(way)->name << length;
    ASSERT_EQ(crc32(start, length), ~expected);
  }
}

}  // namespace
