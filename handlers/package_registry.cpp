#include "package_registry.h"

#include "argument_vector.h"
#include "host_config.h"
#include "host_paths.h"
#include "runner.h"

#include <utility>

std::string installed_file(const char* package, const char* file) {
    std::string folder;
    const bool found = ks_get_ini_info(kPackageRegistry, package, kInstallPathField, folder) != 0;
    return found ? folder + '/' + file : std::string();
}

int run_control_script(std::vector<std::string> arguments) {
    std::string script;
    if (!ks_get_ini_info(kPackageRegistry, kPackage, kControlScriptField, script)) {
        return -1;
    }
    arguments.insert(arguments.begin(), base_name(script.c_str()));
    const argument_vector argv(std::move(arguments));
    return lyn_vexprod_corvo_exec_v(nullptr, nullptr, nullptr, script.c_str(), argv.data());
}
