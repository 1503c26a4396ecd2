// 1011: reads files ahead into the page cache.
#pragma once

#include <string>

#include "Peer.h"
#include "Status.h"
#include "amc.pb.h"

namespace service {

/// At most this many names of one request are looked at.
constexpr int kMaxPreloadFiles = 4096;

/// Asks the kernel to read the files ahead. Takes absolute paths of regular files; anything else (a fifo, a
/// device, a folder) is looked at but never opened. A service that runs as root looks with the requester's
/// eyes (as "nobody" for an unknown peer), so that a client can neither warm nor detect a file it may not
/// read itself.
Outcome preloadFiles(const amc::RequestBootPreLoadResource& request, const Peer& peer);

}  // namespace service
