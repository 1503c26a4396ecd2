#include "Support.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>

#include "bytes.h"

Bytes hex(const std::string& digits) {
  std::string packed = digits;
  packed.erase(std::remove(packed.begin(), packed.end(), ' '), packed.end());
  Bytes bytes;
  for (size_t i = 0; i < packed.size(); i += 2)
    bytes += static_cast<char>(std::stoi(packed.substr(i, 2), nullptr, 16));
  return bytes;
}

std::string uniqueName() {
  static std::atomic<int> count{0};
  return "tarn-test-" + std::to_string(getpid()) + "-" + std::to_string(count++);
}

Bytes reply(uint16_t funcid, uint32_t status, const Bytes& body, int64_t timestamp, uint64_t word16) {
  uint8_t header[32] = {'R', 'C', 'D', 'H', 4, 0};
  write16le(header + 6, funcid);
  write32le(header + 8, status);
  write32le(header + 12, static_cast<uint32_t>(body.size()));
  write64le(header + 16, word16);
  write64le(header + 24, static_cast<uint64_t>(timestamp));
  return Bytes(reinterpret_cast<char*>(header), sizeof(header)) + body;
}

std::pair<sockaddr_un, socklen_t> abstractAddress(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path + 1, name.data(), name.size());
  return {address, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())};
}

FakeService::FakeService(std::string name, int backlog) : m_name(std::move(name)) {
  const auto [address, length] = abstractAddress(m_name);
  m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(m_listener, reinterpret_cast<const sockaddr*>(&address), length), 0) << strerror(errno);
  EXPECT_EQ(listen(m_listener, backlog), 0);
}

bool FakeService::accept() {
  hangUp();
  pollfd waiting = {m_listener, POLLIN, 0};
  if (poll(&waiting, 1, 20000) != 1) return false;
  m_connection = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
  return m_connection >= 0;
}

Bytes Connection::read(size_t count) {
  Bytes bytes;
  while (bytes.size() < count) {
    pollfd waiting = {m_connection, POLLIN, 0};
    if (poll(&waiting, 1, 20000) != 1) break;
    char buffer[65536];
    const ssize_t got = recv(m_connection, buffer, std::min(sizeof(buffer), count - bytes.size()), 0);
    if (got <= 0) break;
    bytes.append(buffer, static_cast<size_t>(got));
  }
  return bytes;
}

Bytes FakeService::readRequest() {
  Bytes packet = read(32);
  if (packet.size() == 32) packet += read(read32le(reinterpret_cast<const uint8_t*>(packet.data()) + 8));
  return packet;
}

bool Connection::write(const Bytes& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t put = send(m_connection, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (put <= 0) return false;
    done += static_cast<size_t>(put);
  }
  return true;
}

void Connection::hangUp() {
  if (m_connection >= 0) close(m_connection);
  m_connection = -1;
}

void FakeService::stop() {
  hangUp();
  if (m_listener >= 0) close(m_listener);
  m_listener = -1;
}
