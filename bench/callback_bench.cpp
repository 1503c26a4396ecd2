// Reports on their way to onData, and the heap blocks of requests and replies.
//
// The virtual machine is made of function tables that cost nothing, here and in the floor: what a real one
// costs comes to both, and would only bring the ratio nearer to 1.
#include <benchmark/benchmark.h>
#include <semaphore.h>

#include <thread>

#include "base/bytes.h"
#include "bridge/C2Java.h"
#include "client/client.h"
#include "local/LocalsocketClient.h"
#include "support/CountedHeap.h"
#include "support/Natives.h"
#include "support/Peer.h"
#include "support/Rows.h"
#include "wire/Funcid.h"

namespace {

constexpr int kRounds = 20000;
constexpr int kPayload = 16;
const uint8_t kBytes[kPayload] = {};
sem_t g_entered;

void connect() {
  static const bool connected = [] {
    sem_init(&g_entered, 0, 0);
    natives().init(peer().name());
    return true;
  }();
  static_cast<void>(connected);
  natives().onData([](const jbyte*, int) { sem_post(&g_entered); });
}

/// From the queue until onData is entered, one report at a time.
void callback(benchmark::State& state) {
  connect();
  for (auto _ : state) {
    g_callback.pushCallback(REPORT_DATA, 0, 0, FUNCID_REGISTER_ANR_CALLBACK, 7, kBytes, kPayload);
    sem_wait(&g_entered);
  }
}
BENCHMARK(callback)->Iterations(kRounds)->UseRealTime();

/// The same of a thread that waits for nothing but a semaphore.
void callbackFloor(benchmark::State& state) {
  connect();
  sem_t pushed;
  sem_init(&pushed, 0, 0);
  std::atomic<bool> ended{false};
  JNIEnv* const env = natives().env();
  std::thread attached([&] {
    for (;;) {
      sem_wait(&pushed);
      if (ended) return;
      jmethodID const onData = env->GetStaticMethodID(tarnbooster_class, "onData", "(IJIII[B)V");
      jbyteArray const array = env->NewByteArray(kPayload);
      env->SetByteArrayRegion(array, 0, kPayload, reinterpret_cast<const jbyte*>(kBytes));
      env->CallStaticVoidMethod(tarnbooster_class, onData, 2, jlong{0}, 0, 1010, 7, array);
      env->DeleteLocalRef(array);
    }
  });
  for (auto _ : state) {
    sem_post(&pushed);
    sem_wait(&g_entered);
  }
  ended = true;
  sem_post(&pushed);
  attached.join();
}
BENCHMARK(callbackFloor)->Iterations(kRounds)->UseRealTime();

void countBlocks(benchmark::State& state, int64_t before) {
  state.counters["blocks"] = static_cast<double>(g_blocks - before) / static_cast<double>(state.iterations());
}

/// A request through the native until it has arrived at the service.
void blocksOfRequest(benchmark::State& state) {
  connect();
  natives().request();
  const int64_t before = g_blocks;
  for (auto _ : state) natives().request();
  countBlocks(state, before);
}
BENCHMARK(blocksOfRequest)->Iterations(kRounds)->UseRealTime();

/// An engine that is fed by hand, and delivers to the callback thread.
class Engine : public LocalsocketClient {
 public:
  Engine() : LocalsocketClient("remote", "local", &g_client) {}
  void read(const std::string& bytes) {
    recvEvent(EVENT_DATA, 9, 0, nullptr, reinterpret_cast<const uint8_t*>(bytes.data()),
              static_cast<int32_t>(bytes.size()));
  }
};

/// A reply as the service sends it: a status, or a pushed message of 16 bytes with the reply without a body
/// that goes between two of them.
void reply(benchmark::State& state, bool pushed) {
  connect();
  Engine engine;
  uint8_t header[32] = {'R', 'C', 'D', 'H', 4, 0};
  write16le(header + 6, pushed ? 1010 : 1002);
  write32le(header + 8, pushed ? 0 : 5);
  std::string bytes(reinterpret_cast<char*>(header), sizeof(header));
  if (pushed) {
    const std::string body = std::string("\x08\x07\x12\x10") + std::string(kPayload, 'x');
    write32le(header + 12, static_cast<uint32_t>(body.size()));
    bytes = bytes + std::string(reinterpret_cast<char*>(header), sizeof(header)) + body;
  }
  const auto round = [&] {
    engine.read(bytes);
    sem_wait(&g_entered);
  };
  round();
  const int64_t before = g_blocks;
  for (auto _ : state) round();
  countBlocks(state, before);
}
BENCHMARK_CAPTURE(reply, status, false)->Iterations(kRounds)->UseRealTime();
BENCHMARK_CAPTURE(reply, push, true)->Iterations(kRounds)->UseRealTime();

const Row kRows[] = {
    {"callback, queue to onData entered, 16 bytes", "us", "callback", "callbackFloor", "time", atMost(1.20)},
    {"heap blocks per request (its packet)", "", "blocksOfRequest", "", "blocks", atMost(1)},
    {"heap blocks per reply with a status", "", "reply/status", "", "blocks", atMost(0)},
    {"heap blocks per pushed message of 16 bytes", "", "reply/push", "", "blocks", atMost(3)},
};

}  // namespace
