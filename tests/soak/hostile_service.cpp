// hostile_service NAME SEED: owns the abstract name and treats every connection badly, each in its own way
// for a quarter of a second and then in another. It ends when it is killed.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <map>
#include <random>
#include <string>

#include "base/bytes.h"
#include "wire/header.h"

namespace {

enum class Mood { REFUSES_ALL, GARBLES, NEVER_READS, PUSHES, CLAIMS, HANGS_UP };

std::minstd_rand g_random;
uint32_t upTo(uint32_t most) {
  return static_cast<uint32_t>(g_random()) % (most + 1);
}

std::string reply(uint16_t funcid, uint32_t status, uint32_t claimed, const std::string& body) {
  uint8_t header[kHeaderBytes] = {};
  write32le(header, kHeaderMagic);
  write16le(header + reply_header::kFuncid, funcid);
  write32le(header + reply_header::kStatus, status);
  write32le(header + reply_header::kDataLen, claimed);
  return std::string(reinterpret_cast<char*>(header), sizeof(header)) + body;
}

std::string say(Mood mood) {
  std::string text;
  switch (mood) {
    case Mood::REFUSES_ALL:
      for (uint32_t i = upTo(20); i > 0; --i) text += reply(static_cast<uint16_t>(1001 + upTo(15)), 5, 0, "");
      return text;
    case Mood::GARBLES:
      text = reply(1010, 0, upTo(100), std::string(upTo(100), static_cast<char>(upTo(255))));
      text[upTo(static_cast<uint32_t>(text.size()) - 1)] ^= static_cast<char>(1U << upTo(7));
      return text;
    case Mood::PUSHES: {  // DataCallback{code 7, data} behind a reply without a body, so that it arrives
                          // whole
      const uint32_t length = 128 + upTo(16000);
      text = std::string("\x08\x07\x12") + static_cast<char>(length | 0x80) + static_cast<char>(length >> 7);
      text.append(length, 'x');
      return reply(1010, 0, 0, "") + reply(1010, 0, static_cast<uint32_t>(text.size()), text);
    }
    case Mood::CLAIMS:
      return reply(1010, 0, static_cast<uint32_t>(g_random()) << upTo(4), std::string(upTo(4000), 'c'));
    case Mood::NEVER_READS:
    case Mood::HANGS_UP:
      break;
  }
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string name = argv[1];
  g_random.seed(static_cast<uint32_t>(atoi(argv[2])));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof(address.sun_path) - 1);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())) != 0 ||
      listen(listener, 4) != 0) {
    return 1;
  }
  int connection = -1;
  for (;;) {
    const auto mood = static_cast<Mood>(upTo(5));
    for (int tick = 0; tick < 25; ++tick) {
      pollfd waiting[2] = {{listener, POLLIN, 0}, {mood == Mood::NEVER_READS ? -1 : connection, POLLIN, 0}};
      if (poll(waiting, 2, 10) > 0 && waiting[0].revents != 0) {
        close(connection);
        connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      }
      static char buffer[65536];
      if (waiting[1].revents != 0 && recv(connection, buffer, sizeof(buffer), MSG_DONTWAIT) <= 0) {
        close(connection);
        connection = -1;
      }
      const std::string text = say(mood);
      if (!text.empty()) send(connection, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    if (mood == Mood::HANGS_UP) {
      close(connection);
      connection = -1;
    }
  }
}
