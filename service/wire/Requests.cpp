#include "service/wire/Requests.h"

#include <fmt/format.h>
#include "wire/Funcid.h"

#include <google/protobuf/io/coded_stream.h>

#include <algorithm>

#include "shared/Text.h"

namespace service {
namespace {

struct RequestKind {
  uint16_t funcid;
  const char* name;
  void (*makeEmpty)(RequestMessage& message);
};

template <class Message>
void makeMessage(RequestMessage& message) {
  message.emplace<Message>();
}

// One row per request; a new request starts with a row here.
const RequestKind kKinds[] = {
    {FUNCID_CHECK_PERMISSION, "checkPermission", makeMessage<std::monostate>},
    {FUNCID_REQUEST_CPU_HIGH_FREQ, "requestCpuHighFreq", makeMessage<amc::RequestCPUHighFreq>},
    {FUNCID_CANCEL_CPU_HIGH_FREQ, "cancelCpuHighFreq", makeMessage<std::monostate>},
    {FUNCID_REQUEST_CPU_CORE_FOR_THREAD, "requestCpuCoreForThread",
     makeMessage<amc::RequestCPUCoreForThread>},
    {FUNCID_CANCEL_CPU_CORE_FOR_THREAD, "cancelCpuCoreForThread", makeMessage<amc::CancelCPUCoreForThread>},
    {FUNCID_REQUEST_HIGH_IO_FREQ, "requestHighIOFreq", makeMessage<amc::RequestHighIOFreq>},
    {FUNCID_CANCEL_HIGH_IO_FREQ, "cancelHighIOFreq", makeMessage<std::monostate>},
    {FUNCID_REQUEST_SCREEN_RESOLUTION, "requestScreenResolution", makeMessage<amc::RequestScreenResolution>},
    {FUNCID_RESET_SCREEN_RESOLUTION, "resetScreenResolution", makeMessage<std::monostate>},
    {FUNCID_REGISTER_ANR_CALLBACK, "registerANRCallback", makeMessage<std::monostate>},
    {FUNCID_REGISTER_BOOT_PRELOAD_RESOURCE, "registerBootPreloadResource",
     makeMessage<amc::RequestBootPreLoadResource>},
    {FUNCID_TERMINATE_APP, "terminateApp", makeMessage<std::monostate>},
    {FUNCID_REQUEST_UNIFY_CPU_IO_THREAD_CORE, "requestUnifyCpuIOThreadCore",
     makeMessage<amc::RequestUnifyCPUIOThreadCore>},
    {FUNCID_CANCEL_UNIFY_CPU_IO_THREAD_CORE, "cancelUnifyCpuIOThreadCore",
     makeMessage<amc::CancelUnifyCPUIOThreadCore>},
};

const RequestKind* kindOf(uint16_t funcid) {
  for (const RequestKind& kind : kKinds) {
    if (kind.funcid == funcid) return &kind;
  }
  return nullptr;
}

struct ParseBody {
  const uint8_t* body;
  size_t length;
  bool operator()(std::monostate&) const { return true; }
  template <class Message>
  bool operator()(Message& message) const {
    // In two steps: in one, the runtime would write a line of its own about missing fields.
    return message.ParsePartialFromArray(body, static_cast<int>(length)) && message.IsInitialized();
  }
};

/// Finds out where the names of 1011 end that are taken, without making texts of them. False when the body is
/// none of its message.
bool boundFiles(const std::vector<uint8_t>& body, size_t& end, size_t& leftOut) {
  google::protobuf::io::CodedInputStream input(body.data(), static_cast<int>(body.size()));
  constexpr uint32_t kFilesTag = 1 << 3 | 2;
  size_t names = 0;
  end = body.size();
  leftOut = 0;
  while (const uint32_t tag = input.ReadTag()) {
    uint32_t length = 0;
    if (tag != kFilesTag || !input.ReadVarint32(&length) || length > body.size() ||
        !input.Skip(static_cast<int>(length))) {
      return false;
    }
    if (++names == kMaxFiles) end = static_cast<size_t>(input.CurrentPosition());
  }
  if (names > kMaxFiles) leftOut = names - kMaxFiles;
  return input.ConsumedEntireMessage();
}

constexpr int kShownItems = 8;  // of a list; a line stays a line

std::string tidsText(const google::protobuf::RepeatedField<int32_t>& tids) {
  const auto shown = tids.begin() + std::min(tids.size(), kShownItems);
  const std::string more = tids.size() > kShownItems ? fmt::format(",... {} in all", tids.size()) : "";
  return fmt::format("bindtids=[{}{}]", fmt::join(tids.begin(), shown, ","), more);
}

struct DescribeArguments {
  const Request& request;
  std::string operator()(const std::monostate&) const { return ""; }
  std::string operator()(const amc::RequestCPUHighFreq& m) const { return levelText(m); }
  std::string operator()(const amc::RequestHighIOFreq& m) const { return levelText(m); }
  std::string operator()(const amc::RequestCPUCoreForThread& m) const {
    return fmt::format("scene={} {} timeout={} action={}", m.scene(), tidsText(m.bindtids()), m.timeout(),
                       m.action());
  }
  std::string operator()(const amc::CancelCPUCoreForThread& m) const { return tidsText(m.bindtids()); }
  std::string operator()(const amc::RequestScreenResolution& m) const {
    return fmt::format("level={} uiName=\"{}\"", m.level(), shared::printable(m.uiname()));
  }
  std::string operator()(const amc::RequestBootPreLoadResource& m) const {
    std::string names;
    for (int i = 0; i < m.files_size() && i < kShownItems; ++i) {
      names += fmt::format("{}\"{}\"", i > 0 ? ", " : "", shared::printable(m.files(i)));
    }
    return fmt::format("files={} [{}{}]", static_cast<size_t>(m.files_size()) + request.leftOutFiles, names,
                       m.files_size() > kShownItems ? ", ..." : "");
  }
  std::string operator()(const amc::RequestUnifyCPUIOThreadCore& m) const {
    return fmt::format("scene={} cpulevel={} iolevel={} {} timeout={} action={}", m.scene(), m.cpulevel(),
                       m.iolevel(), tidsText(m.bindtids()), m.timeout(), m.action());
  }
  std::string operator()(const amc::CancelUnifyCPUIOThreadCore& m) const {
    return fmt::format("cancelcpu={:d} cancelio={:d} cancelthread={:d} {}", m.cancelcpu(), m.cancelio(),
                       m.cancelthread(), tidsText(m.bindtids()));
  }

 private:
  template <class Message>
  static std::string levelText(const Message& m) {
    return fmt::format("scene={} level={} timeoutms={} action={}", m.scene(), m.level(), m.timeoutms(),
                       m.action());
  }
};

}  // namespace

bool decodeRequest(const RequestPacket& packet, Request& request, std::string& problem) {
  const RequestKind* const kind = kindOf(packet.funcid);
  request.funcid = packet.funcid;
  request.callertid = packet.callertid;
  request.sendTime = packet.sendTime;
  request.timestamp = packet.timestamp;
  (kind != nullptr ? kind->makeEmpty : makeMessage<std::monostate>)(request.message);
  request.leftOutFiles = 0;
  request.arguments.clear();
  size_t end = packet.body.size();
  const bool fits = !std::holds_alternative<amc::RequestBootPreLoadResource>(request.message) ||
                    boundFiles(packet.body, end, request.leftOutFiles);
  if (fits && std::visit(ParseBody{packet.body.data(), end}, request.message)) return true;
  problem = fmt::format("the {} body bytes of {} are not its message", packet.body.size(),
                        requestName(packet.funcid));
  return false;
}

const char* requestName(uint16_t funcid) {
  const RequestKind* const kind = kindOf(funcid);
  return kind != nullptr ? kind->name : "unknownRequest";
}

void keepDescription(Request& request) {
  request.arguments = describeArguments(request);
  request.message = {};
}

std::string describeArguments(const Request& request) {
  if (!request.arguments.empty()) return request.arguments;
  return std::visit(DescribeArguments{request}, request.message);
}

}  // namespace service
