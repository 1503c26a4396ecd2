// What a service says to systemd, and gets from it, by its protocols and without its library: sd_notify(3),
// sd_listen_fds(3). All of it does nothing where systemd has not started the service.
#pragma once

#include <string>

#include "shared/UniqueFd.h"

namespace service {

/// Sends a state, as in "READY=1", to the socket that NOTIFY_SOCKET names. Never waits.
void notifySystemd(const std::string& state);

/// The listening socket that systemd (or systemd-socket-activate) has handed over, and its abstract name
/// without the leading zero byte. None without a problem when there is none; none with the problem named when
/// what was handed over is something else. Takes the variables out of the environment.
shared::UniqueFd socketFromSystemd(std::string& name, std::string& problem);

}  // namespace service
