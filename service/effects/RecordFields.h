// The fields of a setting's record. It is read from a file that somebody may have damaged.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace service {

/// A whole number of the object; -1 when there is none of this name.
inline int64_t numberIn(const nlohmann::json& object, const char* name) {
  if (!object.is_object()) return -1;
  const auto field = object.find(name);
  return field != object.end() && field->is_number_integer() ? field->get<int64_t>() : -1;
}

/// A text of the object; empty when there is none of this name.
inline std::string textIn(const nlohmann::json& object, const char* name) {
  if (!object.is_object()) return "";
  const auto field = object.find(name);
  return field != object.end() && field->is_string() ? field->get<std::string>() : "";
}

/// A list of the object; an empty one when there is none of this name.
inline nlohmann::json listIn(const nlohmann::json& object, const char* name) {
  if (!object.is_object()) return nlohmann::json::array();
  const auto field = object.find(name);
  return field != object.end() && field->is_array() ? *field : nlohmann::json::array();
}

/// Adds what the setting was given and, while they differ, what it is to be given next: a service that is
/// killed in between leaves one of the two.
inline void addApplied(nlohmann::json& object, int64_t applied, int64_t wanted) {
  object["applied"] = applied;
  if (wanted >= 0 && wanted != applied) object["wanted"] = wanted;
}

}  // namespace service
