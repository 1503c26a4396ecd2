#include "tools/check/FlawedService.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "base/bytes.h"
#include "base/descriptor.h"
#include "shared/AbstractSocket.h"
#include "wire/Funcid.h"
#include "wire/header.h"
#include "wire/protos/amc.pb.h"

namespace check {
namespace {

constexpr size_t kPlaces = 250;          // clients at a time
constexpr size_t kBodyBytes = 16 << 20;  // longest body
constexpr size_t kUnfinishedBytes = 64 << 20;
constexpr auto kPushEvery = std::chrono::milliseconds(20);

}  // namespace

FlawedService::~FlawedService() {
  endThread();
  for (const auto& [fd, client] : m_clients) close(fd);
}

bool FlawedService::start(std::string& problem) {
  static std::atomic<int> count{0};
  m_name = "tarnbooster-check-" + std::to_string(getpid()) + "-" + std::to_string(++count);
  m_listener = shared::listenOn(m_name, problem);
  if (!m_listener) return false;
  startThread();
  return true;
}

void FlawedService::serve() {
  std::vector<pollfd> ready = {{m_listener.get(), POLLIN, 0}};
  for (const auto& [fd, client] : m_clients) {
    const bool waits = is(Flaw::SERVES_ONE_AFTER_THE_OTHER) && fd != m_clients.begin()->first;
    const bool writes = !client.out.empty();
    if (!waits && !client.isGone && (writes || !client.isDeaf)) {
      ready.push_back({fd, static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0});
    }
  }
  poll(ready.data(), ready.size(), kTurnMs);
  if (ready[0].revents != 0) {
    admit(keepAboveStdio(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC)));
  }
  for (size_t i = 1; i < ready.size() && !m_dead; ++i) {
    if (ready[i].revents != 0 && m_clients.count(ready[i].fd) != 0) serveClient(ready[i].fd);
  }
  if (Clock::now() >= m_nextPush) {
    m_nextPush = Clock::now() + kPushEvery;
    for (auto& [fd, client] : m_clients) {
      if (client.isRegistered || is(Flaw::PUSHES_TO_ALL)) push(client);
    }
  }
  if (!is(Flaw::NEVER_EXPIRES)) unbind([](int, auto until) { return until < Clock::now(); });
}

void FlawedService::admit(int fd) {
  if (fd < 0) return;
  if (is(Flaw::DROPS_THE_OLDEST) && m_clients.size() >= 50)
    leave(m_clients.begin()->first, m_clients.begin()->second);
  if (m_clients.size() >= (is(Flaw::SERVES_EIGHT) ? 8 : kPlaces)) {
    close(fd);
    return;
  }
  m_clients[fd] = {};
  m_last = fd;
}

void FlawedService::serveClient(int fd) {
  Client& client = m_clients[fd];
  flush(fd, client);
  if (is(Flaw::FORGETS_ON_HALF_CLOSE)) poll(nullptr, 0, 20);  // so that the end is there with the request
  char bytes[65536];
  const ssize_t count = client.isDeaf ? -1 : recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
  const bool isOpen = count > 0 || client.isDeaf || (count < 0 && errno == EAGAIN);
  if (count > 0) client.in.append(bytes, static_cast<size_t>(count));
  const bool forgets = is(Flaw::FORGETS_ON_HALF_CLOSE) && recv(fd, bytes, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
  const bool stays = !forgets && takeRequests(fd, client) && isOpen;
  flush(fd, client);
  if (stays) return;
  if (!client.in.empty()) die(Flaw::DIES_OF_CUT_REQUESTS);
  if (client.isRegistered) die(Flaw::DIES_OF_REGISTERED_AND_GONE);
  leave(fd, client);
}

void FlawedService::leave(int fd, Client& client) {
  if (!is(Flaw::NEVER_UNDOES)) unbind([fd](int holder, auto) { return holder == fd; });
  client.isGone = true;
  if (is(Flaw::KEEPS_DESCRIPTORS)) return;
  m_clients.erase(fd);
  close(fd);
}

/// Answers the whole requests that are there. False to close the connection.
bool FlawedService::takeRequests(int fd, Client& client) {
  std::string answers;
  while (client.in.size() >= kHeaderBytes) {
    const auto* const header = reinterpret_cast<const uint8_t*>(client.in.data());
    const uint16_t funcid = read16le(header + request_header::kFuncid);
    if (read32le(header) != kHeaderMagic) return die(Flaw::DIES_OF_MAGIC);
    if (read16le(header + request_header::kVersion) != kRequestVersion) return die(Flaw::DIES_OF_VERSIONS);
    if (is(Flaw::WANTS_A_SEND_TIME) && read64le(header + request_header::kSendTime) == 0) return false;
    size_t length = read32le(header + request_header::kDataLen);
    if (funcid == FUNCID_CHECK_PERMISSION && is(Flaw::EXPECTS_NO_BODY)) length = 0;
    if (length > kBodyBytes) return die(Flaw::DIES_OF_LENGTHS);
    if (length > 65536 && is(Flaw::DEAF_TO_LONG_BODIES)) client.isDeaf = true;
    if (client.in.size() < kHeaderBytes + length) break;
    uint32_t status = 0;
    if (!obey(fd, client, funcid, client.in.substr(kHeaderBytes, length), status)) return false;
    answers += answerTo(client, header, status);
    client.in.erase(0, kHeaderBytes + length);
    if (is(Flaw::LOSES_COALESCED)) client.in.clear();
  }
  if (is(Flaw::LOSES_SPLIT)) client.in.clear();
  size_t unfinished = 0;
  for (const auto& [other, one] : m_clients) unfinished += one.in.size();
  if (unfinished > kUnfinishedBytes) return die(Flaw::DIES_OF_HALF_BODIES);
  if (is(Flaw::WAITS_FOR_A_QUIET_MOMENT) && !client.in.empty()) {
    client.held += answers;
    return true;
  }
  if (is(Flaw::WAITS_FOR_A_QUIET_MOMENT)) answers.insert(0, std::exchange(client.held, ""));
  const bool strays = is(Flaw::ANSWERS_THE_LAST_CLIENT) && m_clients.count(m_last) != 0;
  (strays ? m_clients[m_last] : client).out += answers;
  return true;
}

/// The bytes that answer a request, as the flaw has it.
std::string FlawedService::answerTo(Client& client, const uint8_t* header, uint32_t status) {
  const uint64_t number = ++client.requests;
  if (is(Flaw::ANSWERS_NOTHING) || (is(Flaw::LOSES_ONE_OF_A_HUNDRED) && number % 100 == 0)) return "";
  const uint64_t timestamp = read64le(header + request_header::kTimestamp);
  std::string answer = replyPacket(read16le(header + request_header::kFuncid), status,
                                   is(Flaw::CUTS_TIME_STAMPS) ? static_cast<uint32_t>(timestamp) : timestamp);
  if (is(Flaw::ANSWERS_TWICE)) return answer + answer;
  if (!is(Flaw::SWAPS_ANSWERS)) return answer;
  if (number % 9 != 0) return answer + std::exchange(client.held, "");
  client.held = answer;
  return "";
}

template <class Message>
bool FlawedService::reads(Message& message, const std::string& body) const {
  return (message.ParsePartialFromString(body) && message.IsInitialized()) || is(Flaw::TAKES_ANY_BODY);
}

/// Does what is asked. False to close the connection.
bool FlawedService::obey(int fd, Client& client, uint16_t funcid, const std::string& body, uint32_t& status) {
  amc::RequestCPUHighFreq boost;
  amc::RequestCPUCoreForThread bind;
  amc::CancelCPUCoreForThread cancel;
  amc::RequestScreenResolution screen;
  switch (funcid) {
    case FUNCID_REQUEST_CPU_HIGH_FREQ:
    case FUNCID_REQUEST_HIGH_IO_FREQ:
      if (boost.ParsePartialFromString(body) && boost.level() < 0) die(Flaw::DIES_OF_NEGATIVE_LEVELS);
      return reads(boost, body);
    case FUNCID_REQUEST_CPU_CORE_FOR_THREAD:
      if (!reads(bind, body)) return false;
      for (const int tid : bind.bindtids()) status = bindThread(fd, tid, bind.timeout()) ? status : 6;
      return true;
    case FUNCID_CANCEL_CPU_CORE_FOR_THREAD:
      if (!is(Flaw::NEVER_CANCELS)) unbind([fd](int holder, auto) { return holder == fd; });
      return reads(cancel, body);
    case FUNCID_REQUEST_SCREEN_RESOLUTION:
      return reads(screen, body);
    case FUNCID_REGISTER_ANR_CALLBACK:
      client.isRegistered = true;
      return true;
    case FUNCID_TERMINATE_APP:
      status = is(Flaw::PRETENDS_TO_TERMINATE) ? 0 : 5;
      return true;
    default:
      if (funcid >= FUNCID_CHECK_PERMISSION && funcid <= FUNCID_CANCEL_UNIFY_CPU_IO_THREAD_CORE) return true;
      client.isDeaf = is(Flaw::DEAF_AFTER_UNKNOWN);
      status = 2;
      return true;
  }
}

bool FlawedService::bindThread(int fd, int tid, int timeout) {
  const bool isOurs = access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) == 0;
  if (!isOurs && !is(Flaw::BINDS_ANYBODY)) return false;
  Bound& bound = m_bound[tid];
  if (bound.until.empty()) sched_getaffinity(tid, sizeof(cpu_set_t), &bound.before);
  bound.until[fd] =
      Clock::now() + (timeout == 0 ? std::chrono::hours(1) : std::chrono::milliseconds(timeout));
  cpu_set_t one;
  CPU_ZERO(&one);
  for (int cpu = 0; CPU_COUNT(&one) == 0 && cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &bound.before)) CPU_SET(cpu, &one);
  }
  return sched_setaffinity(tid, sizeof(one), &one) == 0;
}

/// Ends the bindings that `ends` names; who was bound last gets back what it had first.
void FlawedService::unbind(const Ends& ends) {
  for (auto next = m_bound.begin(); next != m_bound.end();) {
    const auto here = next++;
    auto& until = here->second.until;
    for (auto held = until.begin(); held != until.end();) {
      held = ends(held->first, held->second) ? until.erase(held) : std::next(held);
    }
    if (!until.empty()) continue;
    sched_setaffinity(here->first, sizeof(cpu_set_t), &here->second.before);
    m_bound.erase(here);
  }
}

void FlawedService::push(Client& client) const {
  const std::string body = is(Flaw::PUSHES_NOISE) ? "\x08" : "\x08\x07\x12\x01x";
  const std::string packet = replyPacket(FUNCID_REGISTER_ANR_CALLBACK, 0, 0, body);
  client.out +=
      packet + (is(Flaw::PUSHES_TWO_BODIES) ? packet : replyPacket(FUNCID_REGISTER_ANR_CALLBACK, 0, 0));
}

void FlawedService::flush(int fd, Client& client) {
  while (!client.out.empty()) {
    const int flags = is(Flaw::WAITS_FOR_READERS) ? MSG_NOSIGNAL : MSG_NOSIGNAL | MSG_DONTWAIT;
    const ssize_t count = send(fd, client.out.data(), client.out.size(), flags);
    if (count < 0 && errno == EAGAIN) return;
    if (count < 0) die(Flaw::DIES_OF_VANISHED_CLIENTS);
    client.out.erase(0, count < 0 ? client.out.size() : static_cast<size_t>(count));
  }
}

}  // namespace check
