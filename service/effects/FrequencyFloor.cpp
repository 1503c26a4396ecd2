#include "service/effects/FrequencyFloor.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "base/descriptor.h"
#include "service/effects/RecordFields.h"
#include "shared/Text.h"
#include "shared/UniqueFd.h"

namespace service {
namespace {

constexpr int kStrongest = 3;

/// The number in a /sys file. 0, or an errno value.
int readNumber(const std::string& path, int64_t& number) {
  const shared::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return errno;
  char text[32];
  const ssize_t count = retryEintr([&] { return read(file.get(), text, sizeof(text)); });
  if (count < 0) return errno;
  size_t length = static_cast<size_t>(count);
  while (length > 0 && text[length - 1] == '\n') --length;
  return shared::parseNumber({text, length}, 0, INT64_MAX, number) ? 0 : EINVAL;
}

/// 0, or an errno value.
int writeNumber(const std::string& path, int64_t number) {
  const shared::UniqueFd file(open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (!file) return errno;
  const std::string text = fmt::format("{}\n", number);
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

std::string FrequencyFloor::folder(const Cpu& cpu) const {
  return fmt::format("{}/cpu{}/cpufreq/", m_cpuRoot, cpu.number);
}

FrequencyFloor::FrequencyFloor(const std::string& sysRoot) : m_cpuRoot(sysRoot + "/devices/system/cpu") {
  for (const int number : cpuNumbers(m_cpuRoot)) {
    Cpu cpu{number, 0, 0, 0, 0, 0, false};
    if (readNumber(folder(cpu) + "scaling_min_freq", cpu.original) == 0 &&
        readNumber(folder(cpu) + "cpuinfo_min_freq", cpu.least) == 0 &&
        readNumber(folder(cpu) + "scaling_max_freq", cpu.most) == 0 && cpu.most >= cpu.least) {
      m_cpus.push_back(cpu);
    }
  }
}

std::unique_ptr<Setting> FrequencyFloor::ofRecord(const nlohmann::json& record, const std::string& sysRoot) {
  std::unique_ptr<FrequencyFloor> floor(new FrequencyFloor);
  floor->m_cpuRoot = sysRoot + "/devices/system/cpu";
  for (const nlohmann::json& entry : listIn(record, "cpus")) {
    const Cpu cpu{static_cast<int>(numberIn(entry, "cpu")),
                  numberIn(entry, "original"),
                  0,
                  0,
                  numberIn(entry, "applied"),
                  numberIn(entry, "wanted"),
                  false};
    if (cpu.number >= 0 && cpu.original >= 0 && cpu.applied > 0) floor->m_cpus.push_back(cpu);
  }
  return floor->m_cpus.empty() ? nullptr : std::move(floor);
}

nlohmann::json FrequencyFloor::record() const {
  nlohmann::json cpus = nlohmann::json::array();
  for (const Cpu& cpu : m_cpus) {
    nlohmann::json entry = {{"cpu", cpu.number}, {"original", cpu.original}};
    addApplied(entry, cpu.applied > 0 ? cpu.applied : cpu.wanted, cpu.wanted);
    cpus.push_back(std::move(entry));
  }
  return {{"what", "frequency"}, {"cpus", cpus}};
}

Outcome FrequencyFloor::prepare(int strength) {
  if (m_cpus.empty()) return {Status::NOT_AVAILABLE, "this machine has no scaling_min_freq to set"};
  for (Cpu& cpu : m_cpus) {
    const int64_t share = (cpu.most - cpu.least) / kStrongest * std::min(strength, kStrongest);
    const int64_t target = strength >= kStrongest ? cpu.most : cpu.least + share;
    cpu.wanted = std::max(cpu.original, target);
  }
  return {};
}

Outcome FrequencyFloor::apply(int /*strength*/) {
  OutcomeSum outcome;
  for (Cpu& cpu : m_cpus) {
    const std::string path = folder(cpu) + "scaling_min_freq";
    const std::string name = fmt::format("cpu{} scaling_min_freq", cpu.number);
    const int error = writeNumber(path, cpu.wanted);
    if (error != 0) {
      outcome.add(failure(name, error));
      continue;
    }
    int64_t now = 0;
    if (readNumber(path, now) == 0) cpu.wanted = now;
    cpu.applied = cpu.wanted;
    outcome.add({Status::DONE, fmt::format("{} {} -> {}", name, cpu.original, cpu.applied)});
  }
  return outcome.sum();
}

Outcome FrequencyFloor::restore() {
  OutcomeSum outcome;
  // All are compared before the first is put back, as names share files.
  for (Cpu& cpu : m_cpus) {
    int64_t now = 0, cap = 0;
    cpu.isOurs = false;
    if (cpu.applied <= 0) continue;
    int error = readNumber(folder(cpu) + "scaling_min_freq", now);
    if (error == 0 && now != cpu.applied && now != cpu.wanted)
      error = readNumber(folder(cpu) + "scaling_max_freq", cap);
    if (error != 0 && error != ENOENT && error != ENODEV) {
      outcome.add(failure(fmt::format("cpu{} scaling_min_freq", cpu.number), error));
    }
    cpu.isOurs = error == 0 && (now == cpu.applied || now == cpu.wanted ||
                                (now == cap && cap < std::max(cpu.applied, cpu.wanted)));
  }
  for (Cpu& cpu : m_cpus) {
    if (!cpu.isOurs) continue;
    const std::string name = fmt::format("cpu{} scaling_min_freq", cpu.number);
    const int error = writeNumber(folder(cpu) + "scaling_min_freq", cpu.original);
    if (error == 0) cpu.applied = 0;
    outcome.add(error != 0 ? failure(name, error)
                           : Outcome{Status::DONE, fmt::format("{} -> {}", name, cpu.original)});
  }
  if (outcome.empty()) return {Status::DONE, "scaling_min_freq was changed by others, left so"};
  return outcome.sum();
}

}  // namespace service
