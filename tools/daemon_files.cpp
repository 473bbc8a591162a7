#include "daemon_files.h"

#include "host_config.h"
#include "log.h"

namespace ksctl {

std::string install_path() {
    std::string path;
    (void)ks_get_ini_info(kPackageRegistry, kPackage, kInstallPathField, path);
    return path;
}

std::string daemon_log_path() {
    const std::string folder = install_path();
    return (folder.empty() ? std::string("<") + kInstallPathField + ">" : folder) + '/' + kLogFolder + '/' +
           kLogFileName;
}

} // namespace ksctl
