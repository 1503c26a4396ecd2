#include "shared/LibraryLog.h"

#include "base/log.h"

namespace shared {
namespace {

__attribute__((format(printf, 3, 4))) int logNothing(int /*priority*/, const char* /*tag*/,
                                                     const char* /*format*/, ...) {
  return 0;
}

}  // namespace

void silenceLibraryLog() {
  logFunc = logNothing;
}

}  // namespace shared
