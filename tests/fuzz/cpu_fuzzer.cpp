// The kernel's texts into a trace, against the counting of spaces and the sum spelt out in another way. What
// is between them is the real thing: files, opened once and read again at every sample.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "cpuload/ThreadJiffiesMonitor.h"
#include "fuzz/Fuzz.h"

namespace {

constexpr int kCpus = 2;

/// A number as atoi() reads it, modulo 2^32, from its last digit to its first.
int32_t numberAt(const std::string& text, size_t from) {
  const size_t sign = text.find_first_not_of(" \t\n\v\f\r", from);
  if (sign == std::string::npos) return 0;
  const size_t first = sign + (text[sign] == '-' || text[sign] == '+' ? 1 : 0);
  uint32_t value = 0, weight = 1;
  for (size_t end = std::min(text.find_first_not_of("0123456789", first), text.size()); end > first; --end) {
    value += weight * static_cast<uint32_t>(text[end - 1] - '0');
    weight *= 10;
  }
  return static_cast<int32_t>(text[sign] == '-' ? 0 - value : value);
}

int32_t field(const std::string& text, int space) {
  size_t at = std::string::npos;
  for (int i = 0; i < space; ++i) {
    at = text.find(' ', at + 1);
    if (at == std::string::npos) return -1;
  }
  return numberAt(text, at);
}

/// A file under the made-up root that stays in place; set() changes what it says.
class File {
 public:
  explicit File(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    m_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    FUZZ_CHECK(m_fd >= 0);
  }
  void set(const std::string& text) {
    FUZZ_CHECK(ftruncate(m_fd, 0) == 0 && pwrite(m_fd, text.data(), text.size(), 0) >= 0);
    m_text = text.substr(0, 4096);
    m_text.resize(strlen(m_text.c_str()));
  }
  const std::string& text() const { return m_text; }

 private:
  int m_fd;
  std::string m_text;  // as a poll sees it: at most 4096 bytes, up to the first NUL
};

struct Machine {
  std::string root = [] {
    std::string name = "/dev/shm/tarn_cpu_fuzzer_XXXXXX";
    if (mkdtemp(name.data()) == nullptr) name = mkdtemp((name = "/tmp/tarn_cpu_fuzzer_XXXXXX").data());
    return name;
  }();
  File stat{root + "/proc/self/task/77/stat"};
  File frequency[kCpus] = {File(root + "/sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq"),
                           File(root + "/sys/devices/system/cpu/cpu1/cpufreq/scaling_cur_freq")};
  ~Machine() { std::filesystem::remove_all(root); }
};

std::string makeNumber(FuzzedDataProvider& input) {
  const auto kind = input.ConsumeIntegralInRange<int>(0, 7);
  if (kind == 0) return input.ConsumeRandomLengthString(12);
  if (kind == 1) return std::to_string(input.ConsumeIntegral<int64_t>());
  return std::to_string(input.ConsumeIntegralInRange<int>(-1, 200));
}

std::string makeStat(FuzzedDataProvider& input) {
  const auto kind = input.ConsumeIntegralInRange<int>(0, 15);
  if (kind == 0) return input.ConsumeRandomLengthString(200);
  std::string text = "77 (worker) S 4 5 6 7 8 9 10 11 12 13 " + makeNumber(input) + " " + makeNumber(input);
  if (kind == 1) text.insert(4, input.ConsumeRandomLengthString(20));
  if (kind == 2) text.insert(4, 4094 - text.size(), 'n');
  for (int i = 15; i < 38; ++i) text += " 0";
  return kind == 3 ? text
                   : text + " " + std::to_string(input.ConsumeIntegralInRange<int>(-1, kCpus)) + " 0\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Machine machine;
  FuzzedDataProvider input(data, size);
  machine.stat.set(makeStat(input));
  for (File& file : machine.frequency) file.set(makeNumber(input) + "\n");

  const auto jiffies = [](const std::string& text) {
    return static_cast<int32_t>(static_cast<uint32_t>(field(text, 13)) +
                                static_cast<uint32_t>(field(text, 14)));
  };
  ThreadJiffiesMonitor monitor(77, 0, machine.root, kCpus);
  int32_t last = machine.stat.text().empty() ? -2 : jiffies(machine.stat.text());
  FUZZ_CHECK(monitor.prepare() == (last >= 0));
  FUZZ_CHECK(monitor.lastJiffies() == last);
  if (last < 0) return 0;
  uint32_t sum = 0;
  while (input.remaining_bytes() > 0) {
    if (input.ConsumeBool()) machine.stat.set(makeStat(input));
    if (input.ConsumeBool()) machine.frequency[input.ConsumeBool() ? 1 : 0].set(makeNumber(input));
    monitor.sample();
    const std::string& text = machine.stat.text();
    const int32_t cpu = field(text, 38), now = jiffies(text);
    if (!text.empty() && cpu >= 0 && cpu < kCpus && now >= 0) {
      const std::string& khz = machine.frequency[cpu].text();
      const int32_t frequency = khz.empty() || khz[0] == ' ' ? -1 : numberAt(khz, 0);
      sum += static_cast<uint32_t>(frequency) * (static_cast<uint32_t>(now) - static_cast<uint32_t>(last));
      last = now;
    }
    FUZZ_CHECK(monitor.lastJiffies() == last);
    FUZZ_CHECK(monitor.weightedJiffies() == static_cast<int32_t>(sum));
  }
  return 0;
}
