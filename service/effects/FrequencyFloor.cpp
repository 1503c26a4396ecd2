#include "service/effects/FrequencyFloor.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/descriptor.h"
#include "shared/Text.h"
#include "shared/UniqueFd.h"

namespace service {
namespace {

constexpr int kStrongest = 3;

/// The number in a /sys file, or -1.
int64_t readNumber(const std::string& path) {
  const shared::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char text[32];
  const ssize_t count = file ? retryEintr([&] { return read(file.get(), text, sizeof(text)); }) : -1;
  if (count <= 0) return -1;
  size_t length = static_cast<size_t>(count);
  while (length > 0 && text[length - 1] == '\n') --length;
  int64_t number = 0;
  return shared::parseNumber({text, length}, 0, INT64_MAX, number) ? number : -1;
}

/// 0, or an errno value.
int writeNumber(const std::string& path, int64_t number) {
  const shared::UniqueFd file(open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (!file) return errno;
  const std::string text = std::to_string(number) + "\n";
  return retryEintr([&] { return write(file.get(), text.data(), text.size()); }) < 0 ? errno : 0;
}

std::vector<int> cpuNumbers(const std::string& folderPath) {
  std::vector<int> numbers;
  DIR* const folder = opendir(folderPath.c_str());
  if (folder == nullptr) return numbers;
  while (const dirent* entry = readdir(folder)) {  // NOLINT(concurrency-mt-unsafe): the stream is ours alone
    int64_t number = 0;
    if (strncmp(entry->d_name, "cpu", 3) == 0 && shared::parseNumber(entry->d_name + 3, 0, 65535, number)) {
      numbers.push_back(static_cast<int>(number));
    }
  }
  closedir(folder);
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

}  // namespace

FrequencyFloor::FrequencyFloor(const std::string& sysRoot) {
  const std::string cpus = sysRoot + "/devices/system/cpu";
  for (const int number : cpuNumbers(cpus)) {
    const std::string folder = cpus + "/cpu" + std::to_string(number) + "/cpufreq/";
    Cpu cpu{number, folder + "scaling_min_freq", 0, 0, 0, 0};
    cpu.original = readNumber(cpu.path);
    cpu.least = readNumber(folder + "cpuinfo_min_freq");
    cpu.most = readNumber(folder + "scaling_max_freq");
    if (cpu.original >= 0 && cpu.least >= 0 && cpu.most >= cpu.least) m_cpus.push_back(std::move(cpu));
  }
}

Outcome FrequencyFloor::apply(int strength) {
  if (m_cpus.empty()) return {Status::NOT_AVAILABLE, "this machine has no scaling_min_freq to set"};
  OutcomeSum outcome;
  for (Cpu& cpu : m_cpus) {
    const int64_t share = (cpu.most - cpu.least) / kStrongest * std::min(strength, kStrongest);
    const int64_t target = strength >= kStrongest ? cpu.most : cpu.least + share;
    const std::string name = "cpu" + std::to_string(cpu.number) + " scaling_min_freq";
    const int error = writeNumber(cpu.path, std::max(cpu.original, target));
    if (error != 0) {
      outcome.add(failure(name, error));
      continue;
    }
    cpu.applied = readNumber(cpu.path);
    outcome.add(
        {Status::DONE, name + " " + std::to_string(cpu.original) + " -> " + std::to_string(cpu.applied)});
  }
  return outcome.sum();
}

Outcome FrequencyFloor::restore() {
  OutcomeSum outcome;
  // Last written, first looked at: all are compared before the first is put back, as names share files.
  std::vector<Cpu> ours;
  for (const Cpu& cpu : m_cpus) {
    if (cpu.applied > 0 && readNumber(cpu.path) == cpu.applied) ours.push_back(cpu);
  }
  for (const Cpu& cpu : ours) {
    const std::string name = "cpu" + std::to_string(cpu.number) + " scaling_min_freq";
    const int error = writeNumber(cpu.path, cpu.original);
    outcome.add(error != 0 ? failure(name, error)
                           : Outcome{Status::DONE, name + " -> " + std::to_string(cpu.original)});
  }
  if (outcome.empty()) return {Status::DONE, "scaling_min_freq was changed by others, left so"};
  return outcome.sum();
}

}  // namespace service
