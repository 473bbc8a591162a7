// Where the daemon's files are on this host.
#pragma once

#include <string>

namespace ksctl {

/// The package's folder, as the package registry says. @return Nothing when it does not.
std::string install_path();

/// The daemon's log; without an install path a text that says where to find it.
std::string daemon_log_path();

} // namespace ksctl
