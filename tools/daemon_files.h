// Where the daemon's files are on this host.
#pragma once

#include <string>

namespace ksctl {

/// The package's folder according to the package registry. @return Nothing if not there.
std::string install_path();

/// The daemon's log; without an install path a text that says where to find it.
std::string daemon_log_path();

} // namespace ksctl
