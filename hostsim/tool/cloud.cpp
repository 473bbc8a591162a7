// The cloud account's tools, on a host that is signed in, and the two that tell the board's number.

#include "tool.h"

#include <iostream>

namespace {

int refuse(const char* usage) {
    std::cerr << "usage: " << usage << '\n';
    return 2;
}

} // namespace

// nimbo_auth_tool signin -t exchange_token -a TOKEN -i CLIENT -s SECRET -o json
int sign_in_to_cloud(const arguments& args) {
    if (args.size() != 11 || args[0] != "signin") {
        return refuse("nimbo_auth_tool signin -t exchange_token -a TOKEN -i CLIENT -s SECRET -o json");
    }
    std::cout << "{\"access_token\": \"exchanged-" << args[4] << "\"}\n";
    return 0;
}

// nimbo_device_tool get_device_list -d APPLICATION | get_device_info | get_device_status
int describe_cloud_devices(const arguments& args) {
    const std::string wanted = args.empty() ? "" : args[0];
    if (wanted == "get_device_list") {
        std::cout << "[{\"device_id\": \"d-1\", \"name\": \"phone\"}]\n";
    } else if (wanted == "get_device_info") {
        std::cout << "{\"device_id\": \"host-1\"}\n";
    } else if (wanted == "get_device_status") {
        std::cout << "online\n";
    } else {
        return refuse("nimbo_device_tool get_device_list -d APPLICATION | get_device_info | get_device_status");
    }
    return 0;
}

// nimbo_tunnel_agent_tool register_ncm -m MODE -p PACKAGE -c PATH | unregister_ncm -r ID | get_url
int drive_cloud_tunnel(const arguments& args) {
    const std::string command = args.empty() ? "" : args[0];
    if (command == "register_ncm") {
        std::cout << "{\"reg_id\": \"r-1\"}\n";
    } else if (command == "get_url") {
        std::cout << "https://tunnel.example/host-1\n";
    } else if (command != "unregister_ncm") {
        return refuse("nimbo_tunnel_agent_tool register_ncm ... | unregister_ncm -r ID | get_url");
    }
    return 0;
}

// nimbo_cli -t
int print_user_token(const arguments& args) {
    if (args != arguments{"-t"}) {
        return refuse("nimbo_cli -t");
    }
    std::cout << "user-token\n";
    return 0;
}

// get_nimbo_host -n NAME | -s
int print_cloud_host(const arguments& args) {
    if (args.size() == 2 && args[0] == "-n") {
        std::cout << "https://" << args[1] << ".example\n";
    } else if (args == arguments{"-s"}) {
        std::cout << "site.example\n";
    } else {
        return refuse("get_nimbo_host -n NAME | -s");
    }
    return 0;
}

// nimbo_tool -d
int print_board_kind(const arguments& args) {
    if (args != arguments{"-d"}) {
        return refuse("nimbo_tool -d");
    }
    std::cout << "VHOS\n"; // made for the cloud: VHOS_CLD
    return 0;
}

// board_uid, board_serial
int print_board_number(const arguments& /*args*/) {
    std::cout << "Q000I00042\n";
    return 0;
}
