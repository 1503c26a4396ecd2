// Recordings inside tests: written by hand, made by a relay, read back.
#pragma once

#include <sys/eventfd.h>

#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "shared/UniqueFd.h"
#include "support/Support.h"
#include "tools/record/ExportedPdu.h"
#include "tools/record/SocketRelay.h"

/// A file that is removed with its owner.
struct TemporaryFile {
  TemporaryFile() { close(mkstemp(path.data())); }
  ~TemporaryFile() { unlink(path.c_str()); }
  std::string path = testing::TempDir() + "tarn-recording-XXXXXX";
};

/// What a shell prints.
inline std::string shellOutput(const std::string& command) {
  FILE* const pipe = popen(("exec 2>&1; " + command).c_str(), "r");
  std::string output;
  char text[4096];
  for (size_t count = 0; (count = fread(text, 1, sizeof(text), pipe)) > 0;) output.append(text, count);
  pclose(pipe);
  return output;
}

constexpr auto kOut = pcapng::Direction::ToService, kIn = pcapng::Direction::FromService;

/// A recording that a test fills packet by packet, one packet every millisecond unless it says otherwise.
class Capture {
 public:
  Capture() {
    std::string problem;
    EXPECT_TRUE(m_file.create(m_path.path, problem)) << problem;
    m_file.addInterface("@demo", "connection 1");
  }
  void add(pcapng::Direction direction, const Bytes& bytes, uint32_t connection = 1, int afterMs = 1) {
    put(record::connectionTags(connection, direction), direction, bytes, afterMs);
  }
  void put(const Bytes& tags, pcapng::Direction direction, const Bytes& bytes, int afterMs = 1) {
    m_timeNs += afterMs * 1000000;
    m_file.add(0, m_timeNs, direction, tags, bytes);
  }
  const std::string& path() {
    std::string problem;
    EXPECT_TRUE(m_file.flush(problem)) << problem;
    return m_path.path;
  }

 private:
  TemporaryFile m_path;
  record::RecordingFile m_file;
  int64_t m_timeNs = 1795249508000000000;
};

/// One packet.
struct Recorded {
  size_t connection;
  pcapng::Direction direction;
  int64_t timeNs;
  Bytes tags, bytes;
};

struct ReadBack {
  std::vector<Recorded> packets;
  std::vector<pcapng::Interface> interfaces;
  std::string problem;

  /// What went one way over one connection.
  Bytes stream(size_t connection, pcapng::Direction direction) const {
    Bytes all;
    for (const Recorded& packet : packets) {
      if (packet.connection == connection && packet.direction == direction) all += packet.bytes;
    }
    return all;
  }
};

inline ReadBack readRecording(std::istream& in) {
  ReadBack read;
  pcapng::Reader reader(in);
  pcapng::Packet packet;
  while (reader.next(packet, read.problem) == pcapng::Reader::Result::PACKET) {
    record::Tagged tagged;
    if (!record::readTags(packet.bytes, tagged)) tagged.bytes = packet.bytes;
    read.packets.push_back({packet.interface, packet.direction, packet.timeNs,
                            Bytes(packet.bytes, 0, packet.bytes.size() - tagged.bytes.size()),
                            Bytes(tagged.bytes)});
  }
  read.interfaces = reader.interfaces();
  return read;
}

inline ReadBack readRecording(const std::string& path) {
  std::ifstream in(path);
  return readRecording(in);
}

/// A relay to `service` on a thread of its own, and its recording.
class RunningRelay {
 public:
  explicit RunningRelay(const std::string& service) : m_relay(service, m_recorder) {
    std::string problem;
    if (!m_file.create(m_path.path, problem) || !m_relay.start(m_name, problem))
      throw std::runtime_error(problem);
    m_thread = std::thread([this] { m_relay.run(m_end.get()); });
  }
  ~RunningRelay() { stop(); }
  const std::string& name() const { return m_name; }
  const std::string& path() const { return m_path.path; }
  /// Ends the recording and reads it.
  ReadBack stop() {
    eventfd_write(m_end.get(), 1);
    if (m_thread.joinable()) m_thread.join();
    return readRecording(path());
  }
  std::vector<std::string> lines() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_lines;
  }

 private:
  const std::string m_name = uniqueName();
  const TemporaryFile m_path;
  const shared::UniqueFd m_end{eventfd(0, EFD_CLOEXEC)};
  mutable std::mutex m_lock;
  std::vector<std::string> m_lines;  // guarded by m_lock
  record::RecordingFile m_file;
  record::Recorder m_recorder{m_file, [this](const std::string& line) {
                                const std::lock_guard<std::mutex> lock(m_lock);
                                m_lines.push_back(line);
                              }};
  record::SocketRelay m_relay;
  std::thread m_thread;
};
