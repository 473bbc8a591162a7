// A rule of the reverse proxy, from its JSON to the web server's text.
#include "fuzz.h"
#include "json_helpers.h"
#include "reverse_proxy_rule.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Json::Value rule;
    if (!json_parse_stream(std::string(text_of(data, size)), &rule, nullptr)) {
        return 0;
    }
    try {
        const proxy_rule taken = take_proxy_rule(rule);
        const tls_settings tls = {"CIPHERS", "PROTOCOLS", (size & 1U) != 0};
        const std::string text = proxy_rule_text(taken, tls);
        require(text.starts_with("Listen " + std::to_string(taken.port) + "\n<VirtualHost *:"), "the port comes first");
        require(text.ends_with("</VirtualHost>\n"), "a whole virtual host");
        require((text.find("SSLEngine on\n\tSSLCipherSuite CIPHERS\n") != std::string::npos) ==
                    (taken.protocol == "https"),
                "TLS for https alone");
    } catch (const Json::Exception&) { // a member of the wrong kind
        return 0;
    }
    return 0;
}
