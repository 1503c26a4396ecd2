// The local socket's engine without a socket: fed by hand, with an owner that records what it delivers.
#pragma once

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "local/LocalsocketClient.h"

/// The values that onCallback is given: funcid, word16, timestamp, status, body.
using Delivery = std::tuple<int32_t, int64_t, int64_t, int32_t, std::string>;

struct RecordingOwner : ClientProtocal {
  void onCallback(int32_t event, int32_t funcid, int64_t word16, int64_t timestamp, int32_t status,
                  const uint8_t* data, int32_t len) override {
    if (event != 0 || len < 0 || (data == nullptr) != (len == 0)) abort();
    m_got.emplace_back(funcid, word16, timestamp, status,
                       std::string(reinterpret_cast<const char*>(data), static_cast<size_t>(len)));
  }
  std::shared_ptr<IClientEngine> engine() override { return nullptr; }
  IC2JavaCallback* c2JavaCallback() override { return nullptr; }
  std::vector<Delivery> m_got;
};

struct HandFedEngine : LocalsocketClient {
  explicit HandFedEngine(ClientProtocal* owner) : LocalsocketClient("remote", "local", owner) {}
  int read(const std::string& bytes) {
    return recvEvent(EVENT_DATA, 9, 0, nullptr, reinterpret_cast<const uint8_t*>(bytes.data()),
                     static_cast<int32_t>(bytes.size()));
  }
  using LocalsocketClient::recvEvent;
};
