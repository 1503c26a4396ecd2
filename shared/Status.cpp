#include "shared/Status.h"

#include <iterator>

namespace shared {

const char* statusWords(uint32_t status) {
  static const char* const kWords[] = {
      "done",
      "partly done",
      "no such request",
      "bad argument",
      "not available, nothing to set",
      "no right",
      "not the process's own",
      "process unknown",
      "too many boosts",
      "failed",
  };
  return status < std::size(kWords) ? kWords[status] : "another status";
}

}  // namespace shared
