#include "tools/record/Replayer.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>

#include "base/bytes.h"

namespace record {
namespace {

using client::Event;
using client::steadyMs;
using pcapng::Direction;

constexpr int64_t kLookMs = 5;               // while something waits to be sent
constexpr int64_t kProgressMs = 5000;        // between two lines
constexpr size_t kMaxUnsentBytes = 1 << 20;  // a service that reads slowly slows the replay
constexpr size_t kMaxUnsentMessages = 8;     // the same over UDP, where unsent() counts messages

}  // namespace

/// A connection of the recording, and the one that stands for it now.
struct Replayer::Channel {
  Channel(size_t index, const std::function<void(const std::string&)>& say)
      : number(index + 1), comparison([this, say](const std::string& line) {
          say(fmt::format("connection {}: {}", number, line));
        }) {}

  const size_t number;
  Comparison comparison;
  std::unique_ptr<client::Connection> connection;  // null: none was to be had
  bool isOpen = false;                             // more may come
  client::ReplyStream recorded;
  std::string request;  // what there is of a request of several pieces
};

Replayer::Replayer(client::Target target, ReplayOptions options,
                   std::function<void(const std::string&)> differs,
                   std::function<void(size_t, size_t)> progress)
    : m_target(std::move(target)),
      m_options(options),
      m_differs([this, differs = std::move(differs)](const std::string& line) {
        ++m_result.differences;
        differs(line);
      }),
      m_progress(std::move(progress)) {}

Replayer::~Replayer() = default;

ReplayResult Replayer::run(const std::string& path, std::string& problem) {
  RecordingReader reader;
  if (!lookThrough(path, problem) || !reader.open(path, problem)) return m_result;
  const int64_t startMs = steadyMs();
  m_lastEventMs = m_progressAtMs = startMs;
  int64_t firstNs = -1;
  for (Passed passed; reader.next(passed, m_result.fileProblem) && !m_result.noService;) {
    if (firstNs < 0) firstNs = passed.timeNs;
    const int64_t dueMs = m_options.fast ? 0 : startMs + (passed.timeNs - firstNs) / 1000000;
    do {
      pump(dueMs);
      closeDone(false);
    } while (steadyMs() < dueMs);
    letThemLeave();
    take(passed);
  }
  while (isWaiting() && steadyMs() - m_lastEventMs < m_options.waitMs) {
    pump(m_lastEventMs + m_options.waitMs);
    closeDone(false);
  }
  closeDone(true);
  return m_result;
}

/// Counts what the file holds.
bool Replayer::lookThrough(const std::string& path, std::string& problem) {
  RecordingReader reader;
  if (!reader.open(path, problem)) return false;
  std::string fileProblem;
  for (Passed passed; reader.next(passed, fileProblem);) {
    if (passed.channel >= m_left.size()) m_left.resize(passed.channel + 1);
    ++m_left[passed.channel];
    m_total += passed.direction == Direction::ToService ? 1 : 0;
  }
  if (m_total > 0) return true;
  problem = path + " holds no requests" + (fileProblem.empty() ? "" : ": " + fileProblem);
  return false;
}

Replayer::Channel& Replayer::channelOf(size_t number) {
  std::unique_ptr<Channel>& channel = m_channels[number];
  if (channel == nullptr) {
    channel = std::make_unique<Channel>(number, m_differs);
    std::string problem;
    channel->connection = client::connectTo(m_target, problem);
    channel->isOpen = channel->connection != nullptr;
    m_result.noService = m_result.noService || !channel->isOpen;
    if (!channel->isOpen) m_differs(fmt::format("connection {}: {}", channel->number, problem));
    ++m_result.connections;
  }
  return *channel;
}

void Replayer::take(const Passed& passed) {
  Channel& channel = channelOf(passed.channel);
  --m_left[passed.channel];
  if (passed.direction == Direction::ToService) {
    ++m_taken;
    return send(channel, passed.bytes);
  }
  channel.recorded.append(passed.bytes.data(), passed.bytes.size());
  client::Reply reply;
  std::string problem;
  while (channel.recorded.next(reply, problem) == client::ReplyStream::Result::REPLY) {
    channel.comparison.recorded(std::move(reply));
    reply = {};
  }
}

/// Sends what was recorded as one packet: a request, a piece of one, or what is none.
void Replayer::send(Channel& channel, const std::string& bytes) {
  channel.request += bytes;
  const auto* const header = reinterpret_cast<const uint8_t*>(channel.request.data());
  const size_t count = channel.request.size();
  const bool isRequest = count >= kHeaderBytes && read32le(header) == kHeaderMagic;
  const size_t length =
      isRequest ? kHeaderBytes + size_t{read32le(header + request_header::kDataLen)} : count;
  if (count < length && m_left[channel.number - 1] > 0) return;  // its other pieces follow
  if (channel.connection == nullptr) {
    // said when it was not to be had
  } else if (!channel.isOpen) {
    if (!m_result.lost) {
      m_differs(
          fmt::format("connection {}: the service has closed it before the last request", channel.number));
    }
    m_result.lost = true;
  } else {
    if (isRequest) channel.comparison.sent(channel.request);
    if (isRequest || !m_target.isUdp()) channel.connection->send(channel.request);
    m_result.requests += isRequest ? 1 : 0;
  }
  m_lastEventMs = steadyMs();
  channel.request.clear();
}

/// Waits until something comes, at most until then, and takes it.
void Replayer::pump(int64_t untilMs) {
  if (steadyMs() - m_progressAtMs >= kProgressMs) {
    m_progressAtMs = steadyMs();
    m_progress(m_taken, m_total);
  }
  std::vector<pollfd> ready;
  for (const auto& [number, channel] : m_channels) {
    if (channel->isOpen) ready.push_back({channel->connection->fd(), POLLIN, 0});
  }
  int64_t waitMs = std::clamp<int64_t>(untilMs - steadyMs(), 0, kProgressMs);
  if (unsent() > 0) waitMs = std::min(waitMs, kLookMs);
  const int count = poll(ready.data(), ready.size(), static_cast<int>(waitMs));
  if (count <= 0 && unsent() == 0) return;
  for (const auto& [number, channel] : m_channels) {
    if (channel->isOpen) receive(*channel);
  }
}

/// Waits while too much has not left. A service that takes nothing for long loses its connections.
void Replayer::letThemLeave() {
  const size_t most = m_target.isUdp() ? kMaxUnsentMessages : kMaxUnsentBytes;
  size_t before = unsent();
  for (int64_t endMs = steadyMs() + m_options.waitMs; unsent() > most && steadyMs() < endMs;) {
    pump(steadyMs() + kLookMs);
    if (unsent() < before) endMs = steadyMs() + m_options.waitMs;  // it goes on
    before = unsent();
  }
  for (const auto& [number, channel] : m_channels) {
    if (unsent() <= most || !channel->isOpen || channel->connection->unsent() == 0) continue;
    m_differs(fmt::format("connection {}: the service takes no more requests", channel->number));
    channel->isOpen = false;
    m_result.lost = true;
  }
}

/// Takes all that has come on one connection.
void Replayer::receive(Channel& channel) {
  client::Reply reply;
  for (Event event{}; (event = channel.connection->next(reply, 0)) != Event::TIME_OUT; reply = {}) {
    m_lastEventMs = steadyMs();
    if (event == Event::REPLY) {
      channel.comparison.came(std::move(reply));
      continue;
    }
    if (event == Event::WATCHED || event == Event::INTERRUPTED) continue;
    channel.isOpen = false;
    if (event == Event::BROKEN) {
      m_result.broken = true;
      m_differs(fmt::format("connection {}: {}", channel.number, channel.connection->problem()));
    } else if (event == Event::GIVEN_UP) {
      m_result.lost = true;
      m_differs(fmt::format("connection {}: the service does not acknowledge what is sent", channel.number));
    }
    return;
  }
}

/// Ends the connections that the recording has no more packets of, once what was recorded has come; or all.
void Replayer::closeDone(bool all) {
  for (auto next = m_channels.begin(); next != m_channels.end();) {
    const auto here = next++;
    Channel& channel = *here->second;
    const bool isDone = m_left[here->first] == 0 && channel.comparison.isDone(!m_options.fast) &&
                        (channel.connection == nullptr || channel.connection->unsent() == 0);
    if (!all && !isDone) continue;
    if (channel.isOpen) receive(channel);
    m_result.missing += channel.comparison.finish(!m_options.fast);
    m_result.answers += channel.comparison.answers();
    m_result.pushes += channel.comparison.pushes();
    m_channels.erase(here);
  }
}

/// Whether something that was recorded can still come.
bool Replayer::isWaiting() const {
  return std::any_of(m_channels.begin(), m_channels.end(), [this](const auto& entry) {
    const Channel& channel = *entry.second;
    return channel.isOpen &&
           (channel.connection->unsent() > 0 || !channel.comparison.isDone(!m_options.fast));
  });
}

size_t Replayer::unsent() const {
  size_t sum = 0;
  for (const auto& [number, channel] : m_channels) {
    if (channel->isOpen) sum += channel->connection->unsent();
  }
  return sum;
}

}  // namespace record
