#include "service/core/Log.h"

#include <cstdio>

namespace service {

Log::Sink standardOutput() {
  return [](const std::string& line) {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
  };
}

}  // namespace service
