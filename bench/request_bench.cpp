// Requests through the natives to a service in another process, beside the skeleton of the same system calls.
#include <benchmark/benchmark.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <time.h>

#include <chrono>
#include <vector>

#include "support/Natives.h"
#include "support/Rows.h"
#include "support/Skeleton.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// The library, connected once for all benchmarks.
struct Library {
  explicit Library(Skeleton::Arrived arrived = nullptr) {
    static const bool connected = (natives().init(peer().name()), true);
    static_cast<void>(connected);
    natives().onData([](const jbyte*, int) {
      if (s_arrived != nullptr) s_arrived();
    });
    s_arrived = arrived;
  }
  void request() { benchmark::DoNotOptimize(natives().request()); }
  inline static Skeleton::Arrived s_arrived = nullptr;
};

/// What the process has used: seconds of processor time, and context switches.
struct Usage {
  double seconds, switches;
  Usage() {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    const auto in = [](const timeval& time) {
      return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
    };
    seconds = in(used.ru_utime) + in(used.ru_stime);
    switches = static_cast<double>(used.ru_nvcsw + used.ru_nivcsw);
  }
};

/// Requests as fast as the producers get them in, until the last has arrived at the service.
template <class Way>
void stream(benchmark::State& state) {
  constexpr int kRequests = 60000;
  const auto producers = static_cast<int>(state.range(0));
  Way way;
  for (auto _ : state) {
    const uint64_t before = peer().received();
    const Usage used;
    const Clock::time_point start = Clock::now();
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
      threads.emplace_back([&] {
        for (int i = 0; i < kRequests / producers; ++i) way.request();
      });
    }
    for (auto& thread : threads) thread.join();
    const double seconds = secondsSince(start);
    const Usage now;
    peer().await(before + kRequests * kRequestBytes);
    state.counters["per_s"] = kRequests / seconds;
    state.counters["cpu_us"] = (now.seconds - used.seconds) / kRequests * 1e6;
    state.counters["switches"] = (now.switches - used.switches) / kRequests;
  }
}
BENCHMARK_TEMPLATE(stream, Library)
    ->Name("stream")
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Arg(8)
    ->Iterations(1)
    ->UseRealTime();
BENCHMARK_TEMPLATE(stream, Skeleton)
    ->Name("stream_floor")
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Arg(8)
    ->Iterations(1)
    ->UseRealTime();

/// One request every 100 µs: how long its caller is kept.
template <class Way>
void paced(benchmark::State& state) {
  constexpr int kRequests = 5000;
  prctl(PR_SET_TIMERSLACK, 1);
  Way way;
  std::vector<double> kept;
  for (auto _ : state) {
    timespec next{};
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (int i = 0; i < kRequests; ++i) {
      next.tv_nsec += 100000;
      if (next.tv_nsec >= 1000000000) next.tv_sec += 1, next.tv_nsec -= 1000000000;
      clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
      const Clock::time_point start = Clock::now();
      way.request();
      kept.push_back(secondsSince(start) * 1e6);
    }
  }
  std::sort(kept.begin(), kept.end());
  state.counters["p50_us"] = kept[kept.size() / 2];
  state.counters["p99_us"] = kept[kept.size() * 99 / 100];
}
BENCHMARK_TEMPLATE(paced, Library)->Name("paced")->Iterations(1)->UseRealTime();
BENCHMARK_TEMPLATE(paced, Skeleton)->Name("paced_floor")->Iterations(1)->UseRealTime();

sem_t g_arrived;

/// From the call of the native until its reply is with the receiver on the second thread.
template <class Way>
void roundTrip(benchmark::State& state) {
  constexpr int kRequests = 10000;
  sem_init(&g_arrived, 0, 0);
  peer().answer(true);
  {
    Way way([] { sem_post(&g_arrived); });
    std::vector<double> taken;
    for (auto _ : state) {
      for (int i = 0; i < kRequests; ++i) {
        const Clock::time_point start = Clock::now();
        way.request();
        sem_wait(&g_arrived);
        taken.push_back(secondsSince(start) * 1e6);
      }
    }
    std::sort(taken.begin(), taken.end());
    for (const int percent : {10, 50, 90, 99}) {
      state.counters["p" + std::to_string(percent) + "_us"] = taken[taken.size() * percent / 100];
    }
  }
  peer().answer(false);
}
BENCHMARK_TEMPLATE(roundTrip, Library)->Name("round_trip")->Iterations(1)->UseRealTime();
BENCHMARK_TEMPLATE(roundTrip, Skeleton)->Name("round_trip_floor")->Iterations(1)->UseRealTime();

const std::string kThroughput = "throughput against producers";
const std::string kRoundTrip = "round trip by percentile";
const Row kRows[] = {
    {"requests, one producer", "1/s", "stream/1", "stream_floor/1", "per_s", atLeast(1.0), kThroughput, 1},
    {"requests, two producers", "1/s", "stream/2", "stream_floor/2", "per_s", {}, kThroughput, 2},
    {"requests, four producers", "1/s", "stream/4", "stream_floor/4", "per_s", atLeast(1.0), kThroughput, 4},
    {"requests, eight producers", "1/s", "stream/8", "stream_floor/8", "per_s", {}, kThroughput, 8},
    {"processor time per request, one producer", "us", "stream/1", "stream_floor/1", "cpu_us", atMost(1.0)},
    {"processor time per request, four producers", "us", "stream/4", "stream_floor/4", "cpu_us", atMost(1.0)},
    {"context switches per request, one producer", "", "stream/1", "stream_floor/1", "switches"},
    {"context switches per request, four producers", "", "stream/4", "stream_floor/4", "switches"},
    {"time in the call at 10,000 a second, p50", "us", "paced", "paced_floor", "p50_us", atMost(1.15)},
    {"time in the call at 10,000 a second, p99", "us", "paced", "paced_floor", "p99_us", atMost(1.15)},
    {"round trip, p10", "us", "round_trip", "round_trip_floor", "p10_us", {}, kRoundTrip, 10},
    {"round trip, p50", "us", "round_trip", "round_trip_floor", "p50_us", atMost(1.15), kRoundTrip, 50},
    {"round trip, p90", "us", "round_trip", "round_trip_floor", "p90_us", {}, kRoundTrip, 90},
    {"round trip, p99", "us", "round_trip", "round_trip_floor", "p99_us", {}, kRoundTrip, 99},
};

}  // namespace
