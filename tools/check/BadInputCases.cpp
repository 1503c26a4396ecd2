// What no good client sends. It may cost the client its connection, and nobody else anything.
#include <fmt/format.h>

#include <random>

#include "base/bytes.h"
#include "tools/check/Check.h"
#include "tools/check/Tables.h"
#include "tools/client/LocalConnection.h"
#include "wire/Funcid.h"
#include "wire/header.h"
#include "wire/protos/amc.pb.h"

namespace check {
namespace {

/// Another client, connected before the bad one: it must not notice.
class Bystander {
 public:
  explicit Bystander(Check& check) : m_check(check), m_talk(check.connect()) {
    m_talk.mustAsk(FUNCID_CHECK_PERMISSION);
  }
  void look() {
    if (m_talk.ask(FUNCID_CHECK_PERMISSION) != Fate::ANSWERED)
      m_check.fail("another client is served no more");
  }

 private:
  Check& m_check;
  Talk m_talk;
};

/// Sends bad bytes in place of a header, then a good request. Whatever comes must answer that one.
void badHeader(Check& check, const std::string& what, const std::string& bytes) {
  check.sending(what + ", then 1001");
  Bystander bystander(check);
  Talk talk = check.connect();
  talk.send(bytes + talk.pack(FUNCID_CHECK_PERMISSION));
  switch (talk.settle(check.settings().quietMs)) {
    case Fate::ANSWERED:
      check.note("the service goes on after " + what);
      break;
    case Fate::SILENT:
      check.note("the connection stays open after " + what);
      break;
    case Fate::CLOSED:
      break;
  }
  bystander.look();
  check.came("the connection was closed");
}

std::string headerWith(int offset, uint32_t value, int width) {
  std::string packet = client::packRequest(FUNCID_CHECK_PERMISSION, "", 77, 1);
  auto* const at = reinterpret_cast<uint8_t*>(packet.data()) + offset;
  width == 4 ? write32le(at, value) : write16le(at, static_cast<uint16_t>(value));
  return packet;
}

void wrongMagic(Check& check) {
  badHeader(check, "a wrong magic", headerWith(request_header::kMagic, 0x58585858, 4));
  badHeader(check, "the magic in the other byte order", headerWith(request_header::kMagic, 0x52434448, 4));
}

void wrongVersion(Check& check) {
  for (const uint16_t version : {0, 3, 5, 65535}) {
    check.sending(fmt::format("1001 with version {}", version));
    Bystander bystander(check);
    Talk talk = check.connect();
    std::string packet = talk.pack(FUNCID_CHECK_PERMISSION);
    write16le(reinterpret_cast<uint8_t*>(packet.data()) + request_header::kVersion, version);
    talk.send(packet);
    const Fate fate = talk.settle(check.settings().quietMs);
    if (fate == Fate::ANSWERED && talk.status() == 0)
      check.note(fmt::format("version {} is served", version));
    if (fate == Fate::SILENT && !check.settings().target.isUdp()) {
      check.note(fmt::format("version {} is not answered, and the connection stays open", version));
    }
    bystander.look();
  }
  check.came("not served");
}

void unknownRequest(Check& check) {
  for (const uint16_t funcid : {0, 1000, 1015, 65535}) {
    check.sending(fmt::format("{}, which is no request, and then 1001", funcid));
    Talk talk = check.connect();
    const Fate fate = talk.ask(funcid);
    if (fate == Fate::CLOSED) {
      check.note(fmt::format("the connection is closed over {}", funcid));
      continue;
    }
    if (fate == Fate::ANSWERED && talk.status() == 0) {
      check.note(fmt::format("{}, which is no request, is answered with status 0", funcid));
    }
    if (fate == Fate::SILENT) check.note("unknown requests are not answered");
    talk.forgetOpen();
    talk.mustAsk(FUNCID_CHECK_PERMISSION);
  }
  check.came("another status than 0");
}

void wrongBody(Check& check) {
  const std::pair<const char*, std::string> bodies[] = {
      {"no message", "\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"},
      {"a message cut short", gentleRequests()[1].second.substr(0, 5)},
      {"a message without its required fields", std::string("\x08\x01", 2)},
  };
  for (const uint16_t funcid :
       {FUNCID_REQUEST_CPU_HIGH_FREQ, FUNCID_REQUEST_CPU_CORE_FOR_THREAD, FUNCID_REQUEST_SCREEN_RESOLUTION}) {
    for (const auto& [what, body] : bodies) {
      check.sending(fmt::format("{} with {}", requestText(funcid), what));
      Bystander bystander(check);
      Talk talk = check.connect();
      const bool udp = check.settings().target.isUdp();  // where silence is all there may be
      const Fate fate = talk.ask(funcid, body, udp ? check.settings().quietMs : -1);
      if (fate == Fate::ANSWERED && talk.status() == 0) check.fail("status 0");
      if (fate == Fate::SILENT && !udp) {
        talk.forgetOpen();
        talk.mustAsk(FUNCID_CHECK_PERMISSION);
      }
      bystander.look();
    }
  }
  check.came("another status than 0, or no answer");
}

template <class Message>
std::string extreme(int32_t level, int32_t timeout, int64_t action) {
  Message message;
  message.set_scene(level);
  message.set_level(level);
  message.set_timeoutms(timeout);
  message.set_action(action);
  return message.SerializeAsString();
}

void extremeArguments(Check& check) {
  Talk talk = check.connect();
  const auto survives = [&](const std::string& what, uint16_t funcid, const std::string& body) {
    check.sending(what);
    if (talk.isClosed()) talk = check.connect();
    switch (talk.ask(funcid, body)) {
      case Fate::ANSWERED:
        break;
      case Fate::SILENT:
        talk.forgetOpen();
        talk.mustAsk(FUNCID_CHECK_PERMISSION);
        break;
      case Fate::CLOSED:
        check.note("the connection is closed over " + what);
        check.alive();
    }
  };
  for (const int32_t number : {0, -1, INT32_MIN}) {
    survives(fmt::format("1006 with level {} for {} ms", number, number), FUNCID_REQUEST_HIGH_IO_FREQ,
             extreme<amc::RequestHighIOFreq>(number, number, INT64_MIN));
  }
  survives("1006 with the largest level for 1 ms", FUNCID_REQUEST_HIGH_IO_FREQ,
           extreme<amc::RequestHighIOFreq>(INT32_MAX, 1, INT64_MAX));
  amc::RequestCPUCoreForThread bind;
  bind.set_scene(0);
  bind.set_timeout(1);
  bind.set_action(0);
  // Over UDP each lost datagram costs half a second: a message is to be a few of them.
  const int many = check.settings().target.isUdp() ? 500 : 20000;
  for (int tid = 1; tid <= many; ++tid) bind.add_bindtids(-tid);
  survives(fmt::format("1004 with {} threads that do not exist", many), FUNCID_REQUEST_CPU_CORE_FOR_THREAD,
           bind.SerializeAsString());
  amc::RequestScreenResolution screen;
  screen.set_level(INT32_MIN);
  *screen.mutable_uiname() =
      std::string("\0\n\x1b[2J\"\\", 8) + std::string(static_cast<size_t>(many) * 5, 'x');
  survives(fmt::format("1008 with control characters and {} bytes of name", many * 5),
           FUNCID_REQUEST_SCREEN_RESOLUTION, screen.SerializePartialAsString());
  amc::RequestBootPreLoadResource files;
  for (const char* const name : {"", "relative", "/", "/dev/null", "/dev/zero", "/proc/self/mem"})
    files.add_files(name);
  survives("1011 with folders and devices", FUNCID_REGISTER_BOOT_PRELOAD_RESOURCE, files.SerializeAsString());
  check.came("answers");
}

void garbage(Check& check) {
  Bystander bystander(check);
  std::mt19937 random(20240117);
  for (int round = 0; round < 16; ++round) {
    std::string bytes(size_t{1} << (round % 13 + 4), '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    if (round % 2 == 1) {
      bytes.insert(0, client::packRequest(static_cast<uint16_t>(1001 + round % 11), "", 77, 1), 0, 12);
    }
    check.sending(fmt::format("{} bytes of garbage, round {}", bytes.size(), round));
    Talk talk = check.connect();
    talk.allowPushes();
    talk.send(bytes);
  }
  bystander.look();
  check.alive();
}

void cutShort(Check& check) {
  Bystander bystander(check);
  const std::string packet =
      client::packRequest(FUNCID_REQUEST_HIGH_IO_FREQ, gentleRequests()[1].second, 77, 1);
  for (size_t length = 1; length < packet.size(); ++length) {
    check.sending(
        fmt::format("{} of {} bytes of a request, then nothing: the client leaves", length, packet.size()));
    Talk talk = check.connect();
    talk.send(packet.substr(0, length));
  }
  bystander.look();
  check.alive();
}

}  // namespace

const std::vector<Case>& badInputCases() {
  static const std::vector<Case> kCases = {
      {"bad-input.magic", LOCAL, "32 bytes that do not start with \"RCDH\", then 1001",
       "the connection closed; other clients do not notice", wrongMagic},
      {"bad-input.version", BOTH, "1001 with versions 0, 3, 5 and 65535", "not served", wrongVersion},
      {"bad-input.unknown-request", BOTH, "identifiers that are no request, each followed by 1001",
       "another status than 0, then the answer to 1001", unknownRequest},
      {"bad-input.body", BOTH, "bodies that are not the message of their request",
       "another status than 0, or no answer; other clients do not notice", wrongBody},
      {"bad-input.arguments", BOTH, "numbers, lists and names far outside of what is useful",
       "an answer of any status", extremeArguments},
      {"bad-input.garbage", LOCAL, "random bytes from 16 clients", "other clients are served", garbage},
      {"bad-input.cut-short", LOCAL, "every prefix of a request, after which the client leaves",
       "other clients are served", cutShort},
  };
  return kCases;
}

}  // namespace check
