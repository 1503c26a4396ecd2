// Loading the library, and what it does while nothing happens. Each measurement is in a process of its own.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>

#include "support/Natives.h"
#include "support/Peer.h"
#include "support/Rows.h"

namespace {

using Clock = std::chrono::steady_clock;

/// The result of `measure` in a child process.
double inChild(const std::function<double()>& measure) {
  auto* const result = static_cast<double*>(
      mmap(nullptr, sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const pid_t child = fork();
  if (child == 0) {
    *result = measure();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  const double measured = status == 0 ? *result : -1;
  munmap(result, sizeof(double));
  return measured;
}

/// From dlopen until JNI_OnLoad has returned, milliseconds.
double load(const char* file) {
  const Clock::time_point start = Clock::now();
  void* const library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return fprintf(stderr, "%s\n", dlerror()), _exit(1), 0;
  Natives natives(reinterpret_cast<jint (*)(JavaVM*, void*)>(dlsym(library, "JNI_OnLoad")));
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void dlopenMore(benchmark::State& state) {
  constexpr int kLoads = 20;
  double ours = 0, empty = 0;
  for (auto _ : state) {
    for (int i = 0; i < kLoads; ++i) {
      empty += inChild([] { return load(EMPTY_LIBRARY); });
      ours += inChild([] { return load(LIBRARY); });
    }
  }
  state.counters["more_ms"] = (ours - empty) / kLoads;
}
BENCHMARK(dlopenMore)->Iterations(1);

/// Connected and idle: how often a second the process's threads wake.
void idle(benchmark::State& state) {
  double wakes = 0;
  for (auto _ : state) {
    const std::string name = peer().name();
    wakes = inChild([&] {
      void* const library = dlopen(LIBRARY, RTLD_NOW);
      Natives natives(reinterpret_cast<jint (*)(JavaVM*, void*)>(dlsym(library, "JNI_OnLoad")));
      natives.init(name);
      const auto switches = [] {
        rusage used{};
        getrusage(RUSAGE_SELF, &used);
        return static_cast<double>(used.ru_nvcsw);
      };
      usleep(500000);
      const double before = switches();
      usleep(4000000);
      return (switches() - before - 1) / 4;  // less this thread's own sleep
    });
  }
  state.counters["wakes"] = wakes;
}
BENCHMARK(idle)->Iterations(1);

const Row kRows[] = {
    {"dlopen to JNI_OnLoad returned, more than an empty library", "ms", "dlopenMore", "", "more_ms",
     atMost(1.0)},
    {"wake-ups per second, connected and idle", "1/s", "idle", "", "wakes", atMost(1.25)},
};

}  // namespace
