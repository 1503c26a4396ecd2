#include "Requests.h"

#include "Text.h"
#include "protocol.h"

namespace service {
namespace {

using std::to_string;

struct RequestKind {
  uint16_t funcid;
  const char* name;
  RequestMessage (*emptyMessage)();
};

template <class Message>
RequestMessage makeMessage() {
  return Message();
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
  const std::vector<uint8_t>& body;
  bool operator()(std::monostate&) const { return true; }
  template <class Message>
  bool operator()(Message& message) const {
    // In two steps: in one, the runtime would write a line of its own about missing fields.
    return message.ParsePartialFromArray(body.data(), static_cast<int>(body.size())) &&
           message.IsInitialized();
  }
};

constexpr int kShownItems = 8;  // of a list; a line stays a line

std::string tidsText(const google::protobuf::RepeatedField<int32_t>& tids) {
  std::string text = " bindtids=[";
  for (int i = 0; i < tids.size() && i < kShownItems; ++i) text += (i > 0 ? "," : "") + to_string(tids[i]);
  return text + (tids.size() > kShownItems ? ",... " + to_string(tids.size()) + " in all]" : "]");
}

struct DescribeArguments {
  std::string operator()(const std::monostate&) const { return ""; }
  std::string operator()(const amc::RequestCPUHighFreq& m) const { return levelText(m); }
  std::string operator()(const amc::RequestHighIOFreq& m) const { return levelText(m); }
  std::string operator()(const amc::RequestCPUCoreForThread& m) const {
    return " scene=" + to_string(m.scene()) + tidsText(m.bindtids()) + " timeout=" + to_string(m.timeout()) +
           " action=" + to_string(m.action());
  }
  std::string operator()(const amc::CancelCPUCoreForThread& m) const { return tidsText(m.bindtids()); }
  std::string operator()(const amc::RequestScreenResolution& m) const {
    return " level=" + to_string(m.level()) + " uiName=\"" + printable(m.uiname()) + "\"";
  }
  std::string operator()(const amc::RequestBootPreLoadResource& m) const {
    std::string text = " files=" + to_string(m.files_size()) + " [";
    for (int i = 0; i < m.files_size() && i < kShownItems; ++i) {
      text += (i > 0 ? ", \"" : "\"") + printable(m.files(i)) + "\"";
    }
    return text + (m.files_size() > kShownItems ? ", ...]" : "]");
  }
  std::string operator()(const amc::RequestUnifyCPUIOThreadCore& m) const {
    return " scene=" + to_string(m.scene()) + " cpulevel=" + to_string(m.cpulevel()) +
           " iolevel=" + to_string(m.iolevel()) + tidsText(m.bindtids()) +
           " timeout=" + to_string(m.timeout()) + " action=" + to_string(m.action());
  }
  std::string operator()(const amc::CancelUnifyCPUIOThreadCore& m) const {
    return " cancelcpu=" + to_string(m.cancelcpu()) + " cancelio=" + to_string(m.cancelio()) +
           " cancelthread=" + to_string(m.cancelthread()) + tidsText(m.bindtids());
  }

 private:
  template <class Message>
  static std::string levelText(const Message& m) {
    return " scene=" + to_string(m.scene()) + " level=" + to_string(m.level()) +
           " timeoutms=" + to_string(m.timeoutms()) + " action=" + to_string(m.action());
  }
};

}  // namespace

bool decodeRequest(const RequestPacket& packet, Request& request, std::string& problem) {
  const RequestKind* const kind = kindOf(packet.funcid);
  request = {packet.funcid, packet.callertid, packet.sendTime, packet.timestamp,
             kind != nullptr ? kind->emptyMessage() : RequestMessage()};
  if (std::visit(ParseBody{packet.body}, request.message)) return true;
  problem = "the " + to_string(packet.body.size()) + " body bytes of " + requestName(packet.funcid) +
            " are not its message";
  return false;
}

const char* requestName(uint16_t funcid) {
  const RequestKind* const kind = kindOf(funcid);
  return kind != nullptr ? kind->name : "unknownRequest";
}

bool isKnownRequest(uint16_t funcid) {
  return kindOf(funcid) != nullptr;
}

std::string describeArguments(const Request& request) {
  const std::string text = std::visit(DescribeArguments{}, request.message);
  return text.empty() ? text : text.substr(1);
}

}  // namespace service
