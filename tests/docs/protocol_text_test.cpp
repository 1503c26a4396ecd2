// The examples of docs/protocol.md, taken from the text and run against the reference service and the
// library.
#include <fstream>
#include <optional>
#include <sstream>

#include "local/ReplyReader.h"
#include "shared/Address.h"
#include "support/RunningService.h"
#include "udp/udp_packet.h"

namespace {

using Pattern = std::vector<std::optional<uint8_t>>;  // none: any byte

struct Block {
  std::string kind;
  Pattern bytes;
  int line;

  Bytes exact() const {
    Bytes all;
    for (const auto& byte : bytes) all += static_cast<char>(byte.value());
    return all;
  }
  bool matches(const Bytes& other) const {
    return other.size() == bytes.size() &&
           std::equal(bytes.begin(), bytes.end(), other.begin(), [](const auto& wanted, char byte) {
             return !wanted || *wanted == static_cast<uint8_t>(byte);
           });
  }
};

/// The fenced blocks of the text whose kind starts so, in order.
std::vector<Block> blocks(const std::string& kind) {
  std::ifstream text(TARNBOOSTER_DOCS "/protocol.md");
  std::vector<Block> found;
  bool isFenced = false, inside = false;
  int number = 0;
  for (std::string line; std::getline(text, line);) {
    ++number;
    if (line.rfind("```", 0) == 0) {
      isFenced = !isFenced;
      inside = isFenced && line.rfind("```" + kind, 0) == 0;
      if (inside) found.push_back({line.substr(3), {}, number});
      continue;
    }
    if (!inside) continue;
    std::istringstream bytes(line.substr(0, line.find('#')));
    for (std::string byte; bytes >> byte;) {
      EXPECT_EQ(byte.size(), 2u) << number << ": " << line;
      found.back().bytes.push_back(byte == ".." ? std::nullopt
                                                : std::optional<uint8_t>(std::stoi(byte, nullptr, 16)));
    }
  }
  return found;
}

const uint8_t* raw(const Bytes& bytes) {
  return reinterpret_cast<const uint8_t*>(bytes.data());
}

TEST(ProtocolText, TheServiceAnswersTheRequestsOfTheTextToTheByte) {
  service::ServerOptions options;
  options.onRegister = {{7, "hello"}, {8, "again"}};
  RunningService running(service::Policy{{}, false, "/nowhere"}, options);
  BytesClient client(running.name());
  int sent = 0;
  for (const char* kind : {"send", "receive"}) ASSERT_EQ(blocks(kind).size(), 4u);
  for (const Block& block : blocks("")) {
    if (block.kind == "send") {
      ASSERT_TRUE(client.write(block.exact()));
      ++sent;
    } else if (block.kind == "receive") {
      EXPECT_EQ(client.read(block.bytes.size()), block.exact()) << "line " << block.line;
    }
  }
  EXPECT_EQ(sent, 4);
}

TEST(ProtocolText, TheLibraryWritesTheRequestsOfTheTextToTheByte) {
  for (const Block& block : blocks("send")) {
    const Bytes wanted = block.exact();
    const uint16_t funcid = read16le(raw(wanted) + request_header::kFuncid);
    const Bytes body = wanted.substr(kHeaderBytes);
    uint8_t* packet = nullptr;
    uint32_t length = 0;
    ASSERT_GT(genReqPack(funcid, raw(body), static_cast<int32_t>(body.size()), &packet, &length,
                         read32le(raw(wanted) + request_header::kCallertid),
                         static_cast<int64_t>(read64le(raw(wanted) + request_header::kTimestamp))),
              0);
    Bytes made(reinterpret_cast<char*>(packet), length);
    delete[] packet;
    made.replace(request_header::kSendTime, 8, wanted, request_header::kSendTime, 8);
    EXPECT_EQ(made, wanted) << "line " << block.line;
  }
}

TEST(ProtocolText, TheLibraryMisreadsTwoBodiesInARowAsTheTextSays) {
  ASSERT_EQ(blocks("misread").size(), 1u);
  const Bytes stream = blocks("misread")[0].exact();
  ReplyReader reader;
  size_t used = 0;
  ASSERT_EQ(reader.read(raw(stream), stream.size(), &used), ReplyReader::Result::Complete);
  EXPECT_EQ(Bytes(reader.body(), reader.body() + 9), "\x08\x07\x12\x05hello");
  reader.next();
  ASSERT_EQ(reader.read(raw(stream), stream.size(), &used), ReplyReader::Result::Complete);
  EXPECT_EQ(Bytes(reader.body(), reader.body() + 9), Bytes(9, '\0'));
  reader.next();
  EXPECT_EQ(reader.read(raw(stream), stream.size(), &used), ReplyReader::Result::BadMagic);
}

TEST(ProtocolText, TheUdpExchangeOfTheTextHappensToTheByte) {
  RunningService running(service::Policy{{}, false, "/nowhere"});
  sockaddr_in service{};
  ASSERT_TRUE(shared::parseAddress(running.udpAddress(), service));
  PlainPeer client;
  for (const Block& block : blocks("udp-send")) {
    const Bytes bytes = block.exact();
    UdpPkg packet;
    memcpy(&packet, bytes.data(), bytes.size());
    EXPECT_TRUE(isIntact(packet, static_cast<int64_t>(bytes.size()))) << "line " << block.line;
    client.send(service, bytes);
  }
  // The service's two ports may overtake each other, and it sends again what is not acknowledged.
  std::vector<Block> wanted = blocks("udp-receive");
  ASSERT_EQ(wanted.size(), 4u);
  while (!wanted.empty()) {
    const Bytes bytes = client.receive();
    ASSERT_FALSE(bytes.empty()) << "nothing came for line " << wanted[0].line;
    const auto found =
        std::find_if(wanted.begin(), wanted.end(), [&](const Block& block) { return block.matches(bytes); });
    if (found != wanted.end()) wanted.erase(found);
  }
}

}  // namespace
