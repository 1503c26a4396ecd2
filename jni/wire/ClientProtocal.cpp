#include "wire/ClientProtocal.h"

#include "wire/Funcid.h"
#include "wire/protos/amc.pb.h"
// The filter's lines belong to the unit of the requests, under whose name people know them.
#define LOG_FILE_NAME "protocol.cpp"
#include "base/log.h"

namespace {

enum class Parsed { Whole, Broken, NoMemory };

/// ParseFromArray() in two steps: by itself it prints a line of its own when a field is missing. The copy
/// that it makes is the one allocation of the library whose failure can only be told by an exception; it ends
/// here.
Parsed parse(amc::DataCallback* into, const uint8_t* data, int32_t len) {
  try {
    return into->ParsePartialFromArray(data, len) && into->IsInitialized() ? Parsed::Whole : Parsed::Broken;
  } catch (...) {
    return Parsed::NoMemory;
  }
}

}  // namespace

void ClientProtocal::onCallback(int32_t /*event*/, int32_t funcid, int64_t /*word16*/, int64_t timestamp,
                                int32_t status, const uint8_t* data, int32_t len) {
  IC2JavaCallback* const callback = c2JavaCallback();
  if (callback == nullptr) {
    LOG_DEBUG("onCallback c2JavaCallback:0x%x funcid:%d data:0x%x len:%d", addressBits(callback), funcid,
              addressBits(data), len);
    return;
  }
  if (status != 0) {
    callback->pushCallback(REPORT_STATUS, timestamp, status, funcid, 0, nullptr, 0);
    return;
  }
  // Without data a negative length is that of a message shorter than its header, which is only traced.
  const auto bytes = static_cast<uint32_t>(len);
  if (funcid == static_cast<int32_t>(FUNCID_REGISTER_ANR_CALLBACK) && data != nullptr &&
      bytes > kMaxPushedBytes) {
    LOG_ERROR("pushed message of %u bytes dropped, more than %u", bytes, kMaxPushedBytes);
    return;
  }
  if (funcid != static_cast<int32_t>(FUNCID_REGISTER_ANR_CALLBACK) || len <= 0 || data == nullptr) {
    LOG_DEBUG("onCallback c2JavaCallback:0x%x funcid:%d data:0x%x len:%d", addressBits(callback), funcid,
              addressBits(data), len);
    return;
  }
  amc::DataCallback pushed;
  const Parsed parsed = parse(&pushed, data, len);
  if (parsed == Parsed::NoMemory) {
    LOG_ERROR("pushed message of %d bytes not allocated", len);
    return;
  }
  if (parsed == Parsed::Broken) {
    LOG_DEBUG("onCallback ParseFromArray ret:%d c2JavaCallback:0x%x funcid:%d data:0x%x len:%d", 0,
              addressBits(callback), funcid, addressBits(data), len);
    return;
  }
  callback->pushCallback(REPORT_DATA, 0, 0, funcid, pushed.code(),
                         reinterpret_cast<const uint8_t*>(pushed.data().data()),
                         static_cast<int32_t>(pushed.data().size()));
}
