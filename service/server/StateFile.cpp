#include "service/server/StateFile.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "base/descriptor.h"
#include "service/core/SteadyClock.h"
#include "service/wire/Requests.h"
#include "shared/Text.h"
#include "shared/UniqueFd.h"

namespace service {
namespace {

using nlohmann::json;

json clientState(const Client& client, const Boosts& boosts) {
  const Requester& requester = client.requester();
  json state = {{"id", requester.id},
                {"name", requester.name},
                {"registered", client.isRegistered()},
                {"holds", boosts.holds(requester.id)}};
  if (requester.isKnown()) {
    state["pid"] = requester.process->pid();
    state["uid"] = requester.process->uid();
  }
  return state;
}

json boostState(const Boost& boost, int64_t now, int64_t wallNow) {
  static const char* const kParts[] = {"cpu", "io", "thread"};
  json state = {{"client", boost.holder},
                {"request", boost.funcid},
                {"requestName", requestName(boost.funcid)},
                {"part", kParts[static_cast<int>(boost.part)]},
                {"level", boost.strength},
                {"expiresAtMs", nullptr}};
  if (boost.part == Part::THREAD) state["tid"] = boost.tid;
  if (boost.expiresAt != kNoExpiry) state["expiresAtMs"] = wallNow + boost.expiresAt - now;
  return state;
}

std::string dumped(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);  // never throws
}

}  // namespace

json stateOf(const Boosts& boosts, const SocketPort& sockets, const UdpPort* udp, int64_t now) {
  const int64_t wallNow = nowMs();
  json clients = json::array(), settings = json::array();
  sockets.forEach([&](const SocketClient& client) { clients.push_back(clientState(client, boosts)); });
  if (udp != nullptr) {
    udp->forEach([&](const DatagramClient& client) { clients.push_back(clientState(client, boosts)); });
  }
  boosts.forEach([&](const Setting& setting, const std::vector<Boost>& held) {
    json entry = setting.record();
    entry["key"] = setting.key();
    entry["boosts"] = json::array();
    for (const Boost& boost : held) entry["boosts"].push_back(boostState(boost, now, wallNow));
    settings.push_back(std::move(entry));
  });
  return {{"version", 1},
          {"pid", getpid()},
          {"writtenAtMs", wallNow},
          {"clients", std::move(clients)},
          {"settings", std::move(settings)}};
}

std::vector<std::string> stateLines(const json& state) {
  std::vector<std::string> lines = {
      fmt::format("holds: {} settings, {} clients", state["settings"].size(), state["clients"].size())};
  for (const json& setting : state["settings"]) {
    for (const json& boost : setting["boosts"]) {
      const auto client = std::find_if(state["clients"].begin(), state["clients"].end(),
                                       [&](const json& entry) { return entry["id"] == boost["client"]; });
      const json& until = boost["expiresAtMs"];
      lines.push_back(fmt::format(
          "holds: {} by {} {} of {}, level {}, {}", setting["key"].get<std::string>(),
          boost["request"].get<int>(), boost["requestName"].get<std::string>(),
          client != state["clients"].end() ? (*client)["name"].get<std::string>()
                                           : "a client that is forgotten",
          boost["level"].get<int>(),
          until.is_null()
              ? "until it is cancelled"
              : fmt::format("{} ms more", until.get<int64_t>() - state["writtenAtMs"].get<int64_t>())));
    }
    if (setting["boosts"].empty()) {
      lines.push_back(
          fmt::format("holds: {} by nobody, is to be put back", setting["key"].get<std::string>()));
    }
  }
  return lines;
}

int64_t StateFile::dueAt(uint64_t changes) const {
  return m_path.empty() || changes == m_changes ? INT64_MAX : m_notBefore;
}

bool StateFile::write(const json& state, uint64_t changes, std::string& problem) {
  const int64_t start = steadyMs();
  m_changes = changes;
  const std::string text = dumped(state) + "\n", fresh = m_path + ".new";
  bool written = false;
  {
    const shared::UniqueFd file(
        open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
    size_t done = 0;
    ssize_t count = file ? 1 : -1;
    while (count > 0 && done < text.size()) {
      count = retryEintr([&] { return ::write(file.get(), text.data() + done, text.size() - done); });
      if (count > 0) done += static_cast<size_t>(count);
    }
    written = done == text.size();
  }
  written = written && rename(fresh.c_str(), m_path.c_str()) == 0;
  if (!written) problem = "cannot write the state file " + m_path + ": " + shared::errorText(errno);
  const int64_t end = steadyMs();
  m_notBefore = end + std::max(kStateEveryMs, 10 * (end - start));
  return written;
}

}  // namespace service
