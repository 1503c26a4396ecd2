#include "service/core/Record.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "base/descriptor.h"
#include "shared/Text.h"

namespace service {
namespace {

using nlohmann::json;

/// A record longer than this is no record of ours.
constexpr off_t kMaxRecordBytes = off_t{256} * 1024 * 1024;
/// Lines that are of no use any more may take so many bytes beside twice what the others take.
constexpr size_t kSlackBytes = size_t{1} << 20;

std::string bootId() {
  std::string id;
  std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
  return id;
}

std::string contents(int fd) {
  std::string text;
  char piece[65536];
  for (ssize_t count = 0; (count = retryEintr([&] { return read(fd, piece, sizeof(piece)); })) > 0;) {
    text.append(piece, static_cast<size_t>(count));
  }
  return text;
}

// Names come from /proc and /sys, not from clients; still nothing here may throw.
std::string textOf(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string bootLine() {
  return textOf({{"boot", bootId()}});
}

std::string keptLine(const std::string& key, const std::string& found) {
  return "{\"key\":" + textOf(key) + ",\"found\":" + found + "}";
}

std::string keyOf(const json& line) {
  const auto key = line.find("key");
  return key != line.end() && key->is_string() ? key->get<std::string>() : "";
}

bool isSameFile(int fd, const struct stat& other) {
  struct stat own {};
  return fstat(fd, &own) == 0 && own.st_dev == other.st_dev && own.st_ino == other.st_ino;
}

}  // namespace

Record::~Record() {
  // Still locked: who has opened it meanwhile finds out that it is gone.
  if (m_file && m_kept.empty()) unlink(m_path.c_str());
}

bool Record::open(const std::string& path, std::string& problem) {
  struct stat status {};
  bool isOurs = false;
  // Again when its owner has removed it, or put another into its place, before it was locked here.
  for (int tries = 0; tries < 10 && !isOurs; ++tries) {
    m_file = shared::UniqueFd(keepAboveStdio(
        ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600)));
    if (!m_file || flock(m_file.get(), LOCK_EX | LOCK_NB) != 0) break;
    isOurs = lstat(path.c_str(), &status) == 0 && isSameFile(m_file.get(), status);
  }
  if (!m_file || fstat(m_file.get(), &status) != 0) {
    problem = "cannot open the record " + path + ": " + shared::errorText(errno);
  } else if (!S_ISREG(status.st_mode) || status.st_size > kMaxRecordBytes) {
    problem = path + " is no record of this service";
  } else if (!isOurs) {
    problem = "another service uses the record " + path + ": end it, or give --record another path";
  } else {
    const std::string text = contents(m_file.get());
    const json first = json::parse(text.substr(0, text.find('\n')), nullptr, false);
    if (!text.empty() && !(first.is_object() && first.contains("boot"))) {
      problem = path + " is no record of this service";
      m_file = shared::UniqueFd();
      return false;
    }
    std::istringstream lines(text);
    bool sameBoot = false;
    for (std::string piece; std::getline(lines, piece);) {
      const json line = json::parse(piece, nullptr, false);
      if (!line.is_object()) continue;
      if (line.contains("boot")) sameBoot = line["boot"] == bootId();
      if (line.contains("key") && sameBoot) {
        m_left.erase(keyOf(line));
        if (line.contains("found")) m_left[keyOf(line)] = textOf(line["found"]);
      }
    }
    m_kept = m_left;
    m_path = path;
    if (rewrite()) return true;
    problem = "cannot write the record " + path + ": " + shared::errorText(errno);
  }
  m_file = shared::UniqueFd();
  return false;
}

bool Record::append(const std::string& line) {
  const std::string text = line + "\n";
  const ssize_t count = retryEintr([&] { return write(m_file.get(), text.data(), text.size()); });
  if (count == static_cast<ssize_t>(text.size())) {
    m_bytes += text.size();
    return true;
  }
  // Half a line would spoil the next one.
  if (count > 0 && ftruncate(m_file.get(), lseek(m_file.get(), 0, SEEK_END) - count) != 0) return false;
  return false;
}

/// Writes only what is still of use: into a new file, which takes the old one's place, so that a service that
/// dies meanwhile leaves a whole record. An empty one is made in place.
bool Record::rewrite() {
  const size_t before = std::exchange(m_bytes, 0);
  if (!m_kept.empty()) {
    const std::string path = m_path + ".new";
    shared::UniqueFd file(keepAboveStdio(
        ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600)));
    if (!file || flock(file.get(), LOCK_EX | LOCK_NB) != 0) return false;
    std::swap(m_file, file);
    bool written = append(bootLine());
    for (const auto& [key, found] : m_kept) written = written && append(keptLine(key, found));
    if (!written || rename(path.c_str(), m_path.c_str()) != 0) {
      std::swap(m_file, file);
      unlink(path.c_str());
      m_bytes = before;
      m_rewriteAt = 2 * before;
      return false;
    }
  } else if (ftruncate(m_file.get(), 0) != 0 || !append(bootLine())) {
    return false;
  }
  m_rewriteAt = kSlackBytes + 2 * m_bytes;
  return true;
}

bool Record::keep(const std::string& key, const json& found) {
  if (!m_file) return true;
  const std::string text = textOf(found);
  const auto kept = m_kept.find(key);
  if (kept != m_kept.end() && kept->second == text) return true;
  if (!append(keptLine(key, text))) return false;
  m_kept[key] = text;
  if (m_bytes > m_rewriteAt) rewrite();
  return true;
}

void Record::forget(const std::string& key) {
  if (!m_file || m_kept.erase(key) == 0) return;
  if (m_kept.empty() || m_bytes > m_rewriteAt) {
    rewrite();
  } else {
    append(textOf({{"key", key}}));
  }
}

}  // namespace service
