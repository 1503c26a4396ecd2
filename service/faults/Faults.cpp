#include "service/faults/Faults.h"

#include <fmt/format.h>

#include <algorithm>

#include "shared/Text.h"

namespace service {
namespace {

struct Description {
  FaultKind kind;
  const char* name;
  const char* unit;  // of its value; null: it has none
  int64_t least, most, usual;
  const char* help;
};

const Description kDescriptions[] = {
    {FaultKind::DELAY, "delay", "MS", 0, 3600000, 1000, "answers so much later; the order stays"},
    {FaultKind::NO_ANSWER, "no-answer", nullptr, 0, 0, 0, "does what is asked, and never answers"},
    {FaultKind::TWICE, "twice", nullptr, 0, 0, 0, "answers the same request twice"},
    {FaultKind::SWAP, "swap", nullptr, 0, 0, 0, "holds an answer back until the next one is sent"},
    {FaultKind::WRONG_TIMESTAMP, "wrong-timestamp", nullptr, 0, 0, 0, "answers with another time stamp"},
    {FaultKind::WRONG_FUNCID, "wrong-funcid", nullptr, 0, 0, 0, "answers under another function identifier"},
    {FaultKind::TWO_BODIES, "two-bodies", nullptr, 0, 0, 0,
     "sends two pushes behind the answer, and nothing between them"},
    {FaultKind::GARBAGE, "garbage", "BYTES", 1, 1048576, 100, "sends noise in front of the answer"},
    {FaultKind::BAD_MAGIC, "bad-magic", nullptr, 0, 0, 0, "answers with a header that begins wrong"},
    {FaultKind::CUT_HEADER, "cut-header", "BYTES", 0, 31, 16, "sends only so much of the answer's header"},
    {FaultKind::HUGE_LENGTH, "huge-length", "BYTES", 1, UINT32_MAX, UINT32_MAX,
     "announces a body of this length, which never comes"},
    {FaultKind::CLOSE, "close", nullptr, 0, 0, 0, "closes the connection instead of answering"},
    {FaultKind::HALF_CLOSE, "half-close", nullptr, 0, 0, 0, "closes its sending side behind the answer"},
    {FaultKind::STOP_READING, "stop-reading", nullptr, 0, 0, 0, "answers, and reads no more from the client"},
    {FaultKind::LOSE_SPLIT, "lose-split", nullptr, 0, 0, 0,
     "forgets a request that comes in more than one piece"},
    {FaultKind::LOSE_COALESCED, "lose-coalesced", nullptr, 0, 0, 0,
     "forgets what comes behind a request in the same piece"},
    {FaultKind::KEEP_BOOSTS, "keep-boosts", nullptr, 0, 0, 0, "undoes nothing when a client goes"},
    {FaultKind::NO_PUSH, "no-push", nullptr, 0, 0, 0, "registers clients, and pushes them nothing"},
    {FaultKind::REFUSE, "refuse", nullptr, 0, 0, 0, "closes new connections at once"},
    {FaultKind::NO_ACCEPT, "no-accept", nullptr, 0, 0, 0, "leaves new connections waiting"},
    {FaultKind::UDP_LOSE, "udp-lose", "PERCENT", 1, 100, 10, "loses so many of the datagrams that it sends"},
    {FaultKind::UDP_DUPLICATE, "udp-duplicate", "PERCENT", 1, 100, 10,
     "sends so many of its datagrams twice"},
};

const struct {
  const char* name;
  int64_t Fault::*field;
  int64_t least, most;
} kModifiers[] = {
    {"every", &Fault::every, 1, INT32_MAX}, {"after", &Fault::after, 0, INT32_MAX},
    {"only", &Fault::only, 0, 65535},       {"from", &Fault::fromMs, 0, INT32_MAX},
    {"for", &Fault::forMs, 1, INT32_MAX},   {"chance", &Fault::chance, 1, 100},
    {"seed", &Fault::seed, 0, INT64_MAX},
};

/// Whether it strikes at requests, whose identifiers are known when it does.
bool isOfRequests(FaultKind kind) {
  switch (kind) {
    case FaultKind::LOSE_SPLIT:
    case FaultKind::KEEP_BOOSTS:
    case FaultKind::REFUSE:
    case FaultKind::NO_ACCEPT:
    case FaultKind::UDP_LOSE:
    case FaultKind::UDP_DUPLICATE:
      return false;
    default:
      return true;
  }
}

/// Cuts the text in front of the next comma off.
std::string cut(std::string& text) {
  const size_t comma = text.find(',');
  std::string part = text.substr(0, comma);
  text.erase(0, comma == std::string::npos ? comma : comma + 1);
  return part;
}

}  // namespace

std::string faultHelp() {
  std::string help;
  for (const Description& d : kDescriptions) {
    const std::string name = d.unit != nullptr ? fmt::format("{}[={}]", d.name, d.unit) : d.name;
    help += fmt::format("  {:<24}{}{}\n", name, d.help,
                        d.unit != nullptr ? fmt::format(" (default {})", d.usual) : "");
  }
  return help;
}

bool parseFault(const std::string& text, Fault& fault, std::string& problem) {
  fault = {};
  std::string rest = text;
  for (bool isFirst = true; isFirst || !rest.empty(); isFirst = false) {
    const std::string part = cut(rest);
    const size_t equals = part.find('=');
    const std::string name = part.substr(0, equals);
    const bool hasValue = equals != std::string::npos;
    int64_t Fault::*field = nullptr;
    int64_t least = 0, most = 0;
    if (isFirst) {
      const auto* const found = std::find_if(std::begin(kDescriptions), std::end(kDescriptions),
                                             [&](const Description& d) { return name == d.name; });
      if (found == std::end(kDescriptions)) {
        problem = fmt::format("there is no fault \"{}\"; --help lists them", shared::printable(name));
        return false;
      }
      fault.kind = found->kind;
      fault.value = found->usual;
      if (!hasValue) continue;
      if (found->unit == nullptr) {
        problem = fmt::format("the fault {} takes no value", name);
        return false;
      }
      field = &Fault::value;
      least = found->least;
      most = found->most;
    } else {
      const auto* const found = std::find_if(std::begin(kModifiers), std::end(kModifiers),
                                             [&](const auto& m) { return name == m.name; });
      if (found == std::end(kModifiers)) {
        problem =
            fmt::format("there is no \"{}\" to a fault; --help lists what there is", shared::printable(name));
        return false;
      }
      field = found->field;
      least = found->least;
      most = found->most;
    }
    if (!hasValue || !shared::parseNumber(part.substr(equals + 1), least, most, fault.*field)) {
      problem = fmt::format("{} takes a number from {} to {}, as in {}={}", name, least, most, name, most);
      return false;
    }
  }
  if (fault.only >= 0 && !isOfRequests(fault.kind)) {
    problem = fmt::format("the fault {} strikes no requests: it has no \"only\"",
                          text.substr(0, text.find_first_of("=,")));
    return false;
  }
  return true;
}

Faults::Faults(const std::vector<Fault>& faults, int64_t startedAt) : m_startedAt(startedAt) {
  for (const Fault& fault : faults) {
    m_faults.push_back({fault, std::mt19937_64(static_cast<uint64_t>(fault.seed)), {}});
    m_noise.seed(static_cast<uint64_t>(fault.seed));
  }
}

bool Faults::isTime(const Fault& fault, int64_t now) const {
  const int64_t passed = now - m_startedAt;
  return passed >= fault.fromMs && passed - fault.fromMs < fault.forMs;
}

bool Faults::isDue(FaultKind kind, int64_t now) const {
  return std::any_of(m_faults.begin(), m_faults.end(), [&](const Entry& entry) {
    return entry.fault.kind == kind && isTime(entry.fault, now);
  });
}

bool Faults::strikes(FaultKind kind, uint64_t client, int64_t funcid, int64_t now, int64_t& value) {
  bool struck = false;
  for (Entry& entry : m_faults) {
    const Fault& fault = entry.fault;
    if (fault.kind != kind || (fault.only >= 0 && fault.only != funcid)) continue;
    const int64_t time = ++entry.times[client] - fault.after;
    if (time <= 0 || time % fault.every != 0 || !isTime(fault, now)) continue;
    if (static_cast<int64_t>(entry.random() % 100) >= fault.chance) continue;
    value = fault.value;
    struck = true;
  }
  return struck;
}

void Faults::forget(uint64_t client) {
  for (Entry& entry : m_faults) entry.times.erase(client);
}

std::string Faults::noise(size_t count) {
  std::string bytes(count, '\0');
  std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<char>(m_noise()); });
  return bytes;
}

}  // namespace service
