// Does one of the library's jobs again and again, for scripts/check-instructions.sh to count the instructions
// of.
//
//   instructions request|reply|datagram|sample COUNT
//
// request: the native, the engine thread's send, the service's answer, the report to onData, one at a time.
//
// reply: a status, and a pushed message of 16 bytes, from the socket's bytes to the callback queue and out of
// it.
//
// datagram: 1000 bytes sealed and checked.
//
// sample: of a CPU-load trace.
#include <semaphore.h>

#include <cstdio>
#include <fstream>
#include <functional>

#include "base/bytes.h"
#include "bridge/C2Java.h"
#include "client/client.h"
#include "cpuload/ThreadJiffiesMonitor.h"
#include "local/LocalsocketClient.h"
#include "support/Natives.h"
#include "support/Peer.h"
#include "udp/udp_packet.h"

namespace {

sem_t g_entered;

class Filter : public ClientProtocal {
 public:
  std::shared_ptr<IClientEngine> engine() override { return nullptr; }
  IC2JavaCallback* c2JavaCallback() override { return &queue; }
  Callback queue;
};

class Engine : public LocalsocketClient {
 public:
  explicit Engine(ClientProtocal* owner) : LocalsocketClient("remote", "local", owner) {}
  void read(const std::string& bytes) {
    recvEvent(EVENT_DATA, 9, 0, nullptr, reinterpret_cast<const uint8_t*>(bytes.data()),
              static_cast<int32_t>(bytes.size()));
  }
};

std::string header(uint16_t funcid, uint32_t status, uint32_t length) {
  uint8_t bytes[32] = {'R', 'C', 'D', 'H', 4, 0};
  write16le(bytes + 6, funcid);
  write32le(bytes + 8, status);
  write32le(bytes + 12, length);
  return {reinterpret_cast<char*>(bytes), sizeof(bytes)};
}

std::function<void()> job(const std::string& name) {
  if (name == "request") {
    sem_init(&g_entered, 0, 0);
    natives().init(peer().name());
    natives().onData([](const jbyte*, int) { sem_post(&g_entered); });
    peer().answer(true);
    return [] {
      natives().request();
      sem_wait(&g_entered);
    };
  }
  if (name == "reply") {
    auto* const filter = new Filter;
    auto* const engine = new Engine(filter);
    const std::string body = std::string("\x08\x07\x12\x10") + std::string(16, 'x');
    const std::string bytes = header(1002, 5, 0) + header(1010, 0, static_cast<uint32_t>(body.size())) + body;
    return [=] {
      engine->read(bytes);
      for (int i = 0; i < 2; ++i) filter->queue.take();
    };
  }
  if (name == "datagram") {
    auto* const packet = new UdpPkg{};
    packet->dataLength = packet->totalLength = 1000;
    return [=] {
      sealPacket(*packet, packetType(1), 100001);
      if (!isIntact(*packet, packet->wireLength())) abort();
    };
  }
  if (name == "sample") {
    // Made-up files, so that every machine reads the same text.
    const std::string root = "/tmp/tarn-instructions-" + std::to_string(getpid());
    static_cast<void>(system(
        ("mkdir -p " + root + "/proc/self/task/7 " + root + "/sys/devices/system/cpu/cpu0/cpufreq").c_str()));
    std::ofstream(root + "/proc/self/task/7/stat") << "7 (worker) S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 "
                                                      "19 20 21 22 23 24 25 26 27 28 29 30 31 32 33 34 35 36 "
                                                      "37 0 39 40 41\n";
    std::ofstream(root + "/sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq") << "1800000\n";
    auto* const monitor = new ThreadJiffiesMonitor(7, 0, root, 1);
    if (!monitor->prepare()) abort();
    monitor->sample();
    static_cast<void>(system(("rm -r " + root).c_str()));  // both are open
    return [=] { monitor->sample(); };
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  const std::function<void()> once = argc == 3 ? job(argv[1]) : nullptr;
  if (once == nullptr) return fputs("usage: instructions request|reply|datagram|sample COUNT\n", stderr), 2;
  for (int count = atoi(argv[2]); count > 0; --count) once();
  _exit(0);
}
