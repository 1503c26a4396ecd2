// Settings out of the record that a service left which was killed.
#pragma once

#include <memory>
#include <string>

#include "service/core/Setting.h"

namespace service {

/// The setting that a Setting::record(), as JSON text, is of; only its key() and restore() are of use. Null
/// when there is nothing to put back any more (its process has ended), or the record is none.
std::unique_ptr<Setting> settingOfRecord(const std::string& text, const std::string& sysRoot);

}  // namespace service
