#include "tools/cli/Output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "shared/Status.h"
#include "shared/Text.h"
#include "tools/cli/Requests.h"
#include "wire/protos/amc.pb.h"

namespace cli {
namespace {

using Json = nlohmann::ordered_json;

std::string dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool isUtf8(const std::string& bytes) {
  return dump(Json(bytes)).find("\xEF\xBF\xBD") == std::string::npos ||
         bytes.find("\xEF\xBF\xBD") != std::string::npos;
}

/// Bytes of a push: as text where they are some, else in hexadecimal digits.
void addData(Json& json, const std::string& bytes) {
  if (isUtf8(bytes)) {
    json["data"] = bytes;
  } else {
    std::string digits;
    for (const char byte : bytes) digits += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    json["dataHex"] = digits;
  }
}

double milliseconds(int64_t us) {
  return static_cast<double>(us) / 1000;
}

/// The value below which `percent` of the sorted values lie.
int64_t percentile(const std::vector<int64_t>& sorted, size_t percent) {
  return sorted[std::min(sorted.size() - 1, sorted.size() * percent / 100)];
}

const char kFramingBroken[] = " (a body directly after a body: an application would not get it)";

}  // namespace

bool writeOut(const std::string& text) {
  static bool said = false;
  if (fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0) return true;
  if (!said) fprintf(stderr, "tarnbooster: cannot write the output: %s\n", shared::errorText(errno).c_str());
  said = true;
  return false;
}

std::string jsonString(const std::string& text) {
  return dump(Json(text));
}

void Output::line(const std::string& text) {
  m_good = writeOut(text + "\n") && m_good;
}

void Output::sent(uint16_t funcid, size_t bodyBytes, int64_t timestamp) {
  if (!m_json) {
    return line(
        fmt::format("sent {} {}, {} bytes, timestamp {}", funcid, requestName(funcid), bodyBytes, timestamp));
  }
  line(dump(Json{{"event", "sent"},
                 {"funcid", funcid},
                 {"request", requestName(funcid)},
                 {"bodyBytes", bodyBytes},
                 {"timestamp", timestamp}}));
}

void Output::reply(const client::Reply& reply, int64_t tookUs) {
  const ReplyHeader& header = reply.header;
  if (!m_json) {
    return line(fmt::format("reply {} status {} ({}) timestamp {}{}{}{}", header.funcid, header.status,
                            shared::statusWords(header.status), header.timestamp,
                            tookUs < 0 ? "" : fmt::format(" after {:.1f} ms", milliseconds(tookUs)),
                            reply.body.empty() ? "" : fmt::format(" with {} bytes", reply.body.size()),
                            reply.breaksFraming ? kFramingBroken : ""));
  }
  Json json{{"event", "reply"},
            {"funcid", header.funcid},
            {"request", requestName(header.funcid)},
            {"status", header.status},
            {"words", shared::statusWords(header.status)},
            {"timestamp", header.timestamp}};
  if (tookUs >= 0) json["tookMs"] = milliseconds(tookUs);
  if (!reply.body.empty()) json["bodyBytes"] = reply.body.size();
  if (reply.breaksFraming) json["breaksFraming"] = true;
  line(dump(json));
}

void Output::push(const client::Reply& push) {
  amc::DataCallback message;
  const int length = static_cast<int>(push.body.size());
  const bool good = message.ParsePartialFromArray(push.body.data(), length) && message.IsInitialized();
  if (!m_json) {
    return line((good ? fmt::format("push code {} data \"{}\" ({} bytes)", message.code(),
                                    shared::printable(message.data(), SIZE_MAX), message.data().size())
                      : fmt::format("push of {} bytes that is no DataCallback", length)) +
                (push.breaksFraming ? kFramingBroken : ""));
  }
  Json json{{"event", "push"}};
  if (good) {
    json["code"] = message.code();
    addData(json, message.data());
  } else {
    json["problem"] = "no DataCallback";
    json["bodyBytes"] = length;
  }
  if (push.breaksFraming) json["breaksFraming"] = true;
  line(dump(json));
}

void Output::summary(Summary summary) {
  std::sort(summary.tookUs.begin(), summary.tookUs.end());
  const auto& took = summary.tookUs;
  if (m_json) {
    Json json{{"event", "summary"},
              {"sent", summary.sent},
              {"answered", took.size()},
              {"refused", summary.refused},
              {"lost", summary.lost}};
    if (!took.empty()) {
      json["p50Ms"] = milliseconds(percentile(took, 50));
      json["p99Ms"] = milliseconds(percentile(took, 99));
      json["maxMs"] = milliseconds(took.back());
    }
    return line(dump(json));
  }
  std::string text = fmt::format("{} requests, {} answered ({} with another status than 0), {} lost",
                                 summary.sent, took.size(), summary.refused, summary.lost);
  if (!took.empty()) {
    text +=
        fmt::format("; p50 {:.3f} ms, p99 {:.3f} ms, longest {:.3f} ms", milliseconds(percentile(took, 50)),
                    milliseconds(percentile(took, 99)), milliseconds(took.back()));
  }
  line(text);
}

}  // namespace cli
