// One rule of the reverse proxy and the virtual host that it becomes.
#ifndef VEXPROD_HANDLERS_REVERSE_PROXY_RULE_H
#define VEXPROD_HANDLERS_REVERSE_PROXY_RULE_H

#include <json/value.h>

#include <cstdint>
#include <string>

/// What all TLS rules have in common, taken from the host once per request.
struct tls_settings {
    std::string ciphers;
    std::string protocols;
    bool has_chain = false; ///< Whether the host has the file of a certificate authority.
};
tls_settings host_tls_settings();

struct proxy_rule {
    std::int32_t port = 0;     ///< The proxy listens here.
    std::int32_t des_port = 0; ///< The back end's.
    std::string protocol;      ///< Exactly "https" makes the listening side TLS.
    std::string des_protocol;  ///< The back end's URL scheme; exactly "https" and "wss" are TLS.
    bool hsts = false;
    std::string host_name; ///< The back end's name or address.
};

/// Takes a rule out of a request's object. Throws the JSON library's error for a member of the wrong kind, and for
/// ports that are missing or no numbers.
proxy_rule take_proxy_rule(const Json::Value& rule);

/// @return The rule as the web server reads it.
std::string proxy_rule_text(const proxy_rule& rule, const tls_settings& tls);

#endif
