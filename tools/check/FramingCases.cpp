// How requests may lie in the byte stream.
#include <fmt/format.h>
#include <poll.h>

#include "base/bytes.h"
#include "tools/check/Check.h"
#include "tools/check/Tables.h"
#include "tools/client/LocalConnection.h"
#include "wire/Funcid.h"
#include "wire/header.h"
#include "wire/protos/amc.pb.h"

namespace check {
namespace {

constexpr int kPauseMs = 1;  // for the service to read what was sent so far

/// File names that nobody has, `bytes` of them as a message.
std::string longBody(size_t bytes) {
  constexpr size_t kTagBytes = 3;  // field, and a length of two bytes
  amc::RequestBootPreLoadResource message;
  for (size_t left = bytes; left > 0;) {
    const size_t length = left > 8000 ? 4000 - kTagBytes : std::min<size_t>(left - kTagBytes, 4000);
    *message.add_files() = "/nonexistent/" + std::string(length - 13, 'x');
    left -= std::min(left, length + kTagBytes);
  }
  return message.SerializeAsString();
}

const std::string& cpuBody() {
  return gentleRequests()[1].second;
}

void everyCut(Check& check) {
  Talk talk = check.connect();
  const size_t length = kHeaderBytes + cpuBody().size();
  for (size_t cut = 1; cut < length; ++cut) {
    check.sending(fmt::format("1006 cut after byte {} of {}", cut, length));
    const std::string packet = talk.pack(FUNCID_REQUEST_HIGH_IO_FREQ, cpuBody());
    talk.send(packet.substr(0, cut));
    poll(nullptr, 0, kPauseMs);
    talk.send(packet.substr(cut) + talk.pack(FUNCID_CHECK_PERMISSION));
    talk.expectAnswers();
  }
}

void byteByByte(Check& check) {
  Talk talk = check.connect();
  std::string packets = talk.pack(FUNCID_REQUEST_HIGH_IO_FREQ, cpuBody());
  packets += talk.pack(FUNCID_CHECK_PERMISSION);
  for (const char byte : packets) {
    talk.send(std::string(1, byte));
    poll(nullptr, 0, kPauseMs);
  }
  talk.expectAnswers();
}

void coalesced(Check& check) {
  Talk talk = check.connect();
  std::string packets;
  for (const auto& [funcid, body] : gentleRequests()) packets += talk.pack(funcid, body);
  talk.send(packets + talk.pack(FUNCID_CHECK_PERMISSION));
  talk.expectAnswers();
}

void notHeldBack(Check& check) {
  Talk talk = check.connect();
  const std::string first = talk.pack(FUNCID_CHECK_PERMISSION);
  Talk packer = check.connect();  // its packet is not open on the other talk yet
  const std::string second = packer.pack(FUNCID_REQUEST_HIGH_IO_FREQ, cpuBody());
  packer.forgetOpen();
  talk.send(first + second.substr(0, second.size() - 1));
  talk.expectAnswers();
}

void pipelined(Check& check) {
  Talk talk = check.connect();
  for (int i = 0; i < 1000; ++i) talk.queue(talk.pack(FUNCID_CHECK_PERMISSION));
  talk.expectAnswers();
  check.came("1000 answers");
}

void bodyBehindBodyless(Check& check) {
  Talk talk = check.connect();
  const Fate fate = talk.ask(FUNCID_CHECK_PERMISSION, "12345");
  if (fate == Fate::SILENT) talk.forgetOpen();
  if (fate == Fate::CLOSED) return check.came("the connection was closed");
  talk.mustAsk(FUNCID_CHECK_PERMISSION);
}

void largeBody(Check& check) {
  for (const size_t bytes : {size_t{1} << 20, size_t{16} << 20}) {
    check.sending(fmt::format("1011 with {} body bytes, then 1001", bytes));
    Talk talk = check.connect();
    const bool taken = talk.send(talk.pack(FUNCID_REGISTER_BOOT_PRELOAD_RESOURCE, longBody(bytes)));
    if (taken && !talk.isClosed()) {
      talk.send(talk.pack(FUNCID_CHECK_PERMISSION));
      talk.expectAnswers();
    } else if (talk.settle() == Fate::CLOSED) {
      check.note(fmt::format("a body of {} MiB is refused", bytes >> 20));
    } else {
      check.fail("the service takes no more of it, and does not close the connection either");
    }
  }
  check.alive();
  check.came("answers");
}

void claimedLength(Check& check) {
  for (const uint32_t length : {UINT32_MAX, uint32_t{INT32_MAX}, uint32_t{1} << 30}) {
    Talk talk = check.connect();
    std::string packet = talk.pack(FUNCID_REGISTER_BOOT_PRELOAD_RESOURCE);
    write32le(reinterpret_cast<uint8_t*>(packet.data()) + request_header::kDataLen, length);
    check.sending(fmt::format("1011 that claims {} body bytes, and 64 KiB of them", length));
    talk.send(packet + std::string(65536, '\0'));
    if (talk.settle(check.settings().quietMs) == Fate::ANSWERED)
      check.fail("an answer to a request that is not whole");
    if (!talk.isClosed()) check.note(fmt::format("{} body bytes are waited for", length));
    check.alive();
  }
  check.came("the connection was closed");
}

}  // namespace

const std::vector<Case>& framingCases() {
  static const std::vector<Case> kCases = {
      {"framing.cut-at-every-byte", LOCAL, "a request with a body in two writes, cut at each byte in turn",
       "its answer each time, as for a request in one write", everyCut},
      {"framing.byte-by-byte", LOCAL, "two requests, a write for each byte", "their answers", byteByByte},
      {"framing.coalesced", LOCAL, "a request of each kind, all in one write", "their answers", coalesced},
      {"framing.not-held-back", LOCAL, "a whole request, and all of the next one but its last byte",
       "the answer to the first one, although the second is not whole", notHeldBack},
      {"framing.pipelined", BOTH, "1000 requests without reading an answer", "1000 answers", pipelined},
      {"framing.unasked-body", BOTH, "1001 with a body of 5 bytes, then 1001",
       "both answered, or the connection closed: the body is not taken for the next header",
       bodyBehindBodyless},
      {"framing.large-body", LOCAL, "1011 with 1 MiB and with 16 MiB of file names, then 1001",
       "answers, or the connection closed", largeBody},
      {"framing.claimed-length", LOCAL, "1011 that claims 1 to 4 GiB of body, and 64 KiB of them",
       "the connection closed; other clients are served", claimedLength},
  };
  return kCases;
}

}  // namespace check
