// What a recording relay adds: a request and its reply, directly and through the relay, and how many bytes a
// second get through.
//
// The service is a thread that answers each request at once, so the time is that of the sockets and, in
// between, of the relay. The recording goes to a file in the temporary folder.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "base/bytes.h"
#include "shared/AbstractSocket.h"
#include "support/Rows.h"
#include "tools/client/Packet.h"
#include "tools/record/SocketRelay.h"
#include "wire/Funcid.h"

namespace {

/// Reads or writes all of `count` bytes; false at the end of the connection.
bool readAll(int fd, char* bytes, size_t count) {
  for (size_t done = 0; done < count;) {
    const ssize_t got = recv(fd, bytes + done, count - done, 0);
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

void writeAll(int fd, const std::string& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t put = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (put <= 0) abort();
    done += static_cast<size_t>(put);
  }
}

void setBlocking(int fd) {
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
}

/// Answers each request, whatever it is; its threads end with the process.
const std::string& service() {
  static const std::string name = [] {
    const std::string chosen = "tarn-bench-service-" + std::to_string(getpid());
    std::string problem;
    auto& listener = *new shared::UniqueFd(shared::listenOn(chosen, problem));
    if (!listener) abort();
    setBlocking(listener.get());
    std::thread([&listener] {
      for (int fd = 0; (fd = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        std::thread([fd] {
          std::string header(kHeaderBytes, 0), body;
          while (readAll(fd, header.data(), header.size())) {
            body.resize(read32le(reinterpret_cast<uint8_t*>(&header[request_header::kDataLen])));
            if (!readAll(fd, body.data(), body.size())) break;
            write64le(reinterpret_cast<uint8_t*>(&header[8]), 0);  // status and length of the reply
            writeAll(fd, header);
          }
          close(fd);
        }).detach();
      }
    }).detach();
    return chosen;
  }();
  return name;
}

/// A relay in front of the service; it runs as long as the process.
const std::string& relay() {
  static const std::string name = [] {
    const std::string chosen = "tarn-bench-relay-" + std::to_string(getpid());
    const std::string path = "/tmp/" + chosen + ".pcapng";
    auto& file = *new record::RecordingFile;
    auto& recorder =
        *new record::Recorder(file, [](const std::string& line) { fprintf(stderr, "%s\n", line.c_str()); });
    auto& running = *new record::SocketRelay(service(), recorder);
    std::string problem;
    if (!file.create(path, problem) || !running.start(chosen, problem)) abort();
    unlink(path.c_str());  // it vanishes with the process
    std::thread([](auto* r) { r->run(eventfd(0, EFD_CLOEXEC)); }, &running).detach();
    return chosen;
  }();
  return name;
}

/// One request and its reply at a time.
void roundTrip(benchmark::State& state, const std::string& (*where)()) {
  const shared::UniqueFd connection = shared::connectTo(where());
  if (!connection) return state.SkipWithError("nobody listens");
  setBlocking(connection.get());
  const std::string request = client::packRequest(
      FUNCID_REQUEST_CPU_HIGH_FREQ, std::string(static_cast<size_t>(state.range(0)), 'x'), 1, 1);
  char reply[kHeaderBytes];
  for (auto _ : state) {
    writeAll(connection.get(), request);
    if (!readAll(connection.get(), reply, sizeof(reply)))
      return state.SkipWithError("the connection has ended");
  }
  state.SetBytesProcessed(static_cast<int64_t>(request.size()) * static_cast<int64_t>(state.iterations()));
}
BENCHMARK_CAPTURE(roundTrip, direct, service)->Name("direct")->Arg(9)->Arg(1 << 20)->UseRealTime();
BENCHMARK_CAPTURE(roundTrip, recorded, relay)->Name("recorded")->Arg(9)->Arg(1 << 20)->UseRealTime();

/// What the relay adds to one message: round trips directly and through it, in turns. A round trip passes it
/// twice.
void added(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  const shared::UniqueFd ends[] = {shared::connectTo(service()), shared::connectTo(relay())};
  if (!ends[0] || !ends[1]) return state.SkipWithError("nobody listens");
  for (const shared::UniqueFd& end : ends) setBlocking(end.get());
  const std::string request = client::packRequest(FUNCID_REQUEST_CPU_HIGH_FREQ, "012345678", 1, 1);
  char reply[kHeaderBytes];
  Clock::duration took[2]{};
  for (auto _ : state) {
    for (int i = 0; i < 2; ++i) {
      const auto start = Clock::now();
      writeAll(ends[i].get(), request);
      if (!readAll(ends[i].get(), reply, sizeof(reply))) return state.SkipWithError("a connection has ended");
      took[i] += Clock::now() - start;
    }
  }
  const std::chrono::duration<double, std::micro> more = took[1] - took[0];
  state.counters["us"] = more.count() / 2 / static_cast<double>(state.iterations());
}
BENCHMARK(added)->UseRealTime();

const Row kRows[] = {
    {"what the recording relay adds to a message", "us", "added", "", "us", atMost(20)},
    {"round trip of a request through the recording relay", "us", "recorded/9", "direct/9", "time"},
    {"the same with a body of 1 MiB", "us", "recorded/1048576", "direct/1048576", "time"},
};

}  // namespace
