#include "service/effects/Recorded.h"

#include <nlohmann/json.hpp>

#include "service/effects/CoreBinding.h"
#include "service/effects/FrequencyFloor.h"
#include "service/effects/IoPriority.h"
#include "service/effects/RecordFields.h"

namespace service {

std::unique_ptr<Setting> settingOfRecord(const std::string& text, const std::string& sysRoot) {
  const nlohmann::json record = nlohmann::json::parse(text, nullptr, false);
  const std::string what = textIn(record, "what");
  if (what == "affinity") return CoreBinding::ofRecord(record);
  if (what == "io") return IoPriority::ofRecord(record);
  if (what == "frequency") return FrequencyFloor::ofRecord(record, sysRoot);
  return nullptr;
}

}  // namespace service
