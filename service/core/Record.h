// What was found before it was changed, kept in a file: a service that is killed (SIGKILL, a crash) puts
// nothing back, so the next one does.
//
// The file holds one JSON object a line, appended before the change that it is about is made:
//   {"boot": "..."}                     the first line: what follows is of this boot of the machine
//   {"key": "...", "found": {...}}      the setting `key` is about to be changed, or was changed further
//   {"key": "..."}                      it was put back
// It is emptied whenever nothing is held, and removed at the end when nothing is left to be put back.
#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "shared/UniqueFd.h"

namespace service {

class Record {
 public:
  /// Without a file: remembers nothing.
  Record() = default;
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;
  ~Record();

  /// Opens or makes the file, which only one service at a time may use, and reads what the last one left.
  /// False, with the problem named, when that fails. A damaged line is passed over.
  bool open(const std::string& path, std::string& problem);

  /// What the service before this one had not put back, by key: a setting's record() as JSON text. Empty
  /// after a change of boot: what boosts change does not outlive that.
  const std::map<std::string, std::string>& left() const { return m_left; }

  /// The setting is about to be changed, or was: `found` is its record(). False when it could not be written.
  bool keep(const std::string& key, const nlohmann::json& found);
  /// The setting was put back.
  void forget(const std::string& key);

 private:
  bool append(const std::string& line);
  bool rewrite();

  std::string m_path;
  shared::UniqueFd m_file;
  std::map<std::string, std::string> m_left;
  std::map<std::string, std::string> m_kept;  // what the file says
  size_t m_bytes = 0;                         // in the file
  size_t m_rewriteAt = 0;                     // with more bytes than these it is written anew
};

}  // namespace service
