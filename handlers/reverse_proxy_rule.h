// One rule of the reverse proxy and the virtual host generated from it.
#ifndef VEXPROD_HANDLERS_REVERSE_PROXY_RULE_H
#define VEXPROD_HANDLERS_REVERSE_PROXY_RULE_H

#include <json/value.h>

#include <cstdint>
#include <string>

/// The settings shared by all TLS rules, read from the host once per request.
struct tls_settings {
    std::string ciphers;
    std::string protocols;
    bool has_chain = false; ///< Whether the host has a certificate authority's file.
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

/// Reads a rule from a request's object. Throws the JSON library's error for a member of the wrong type, and for ports
/// that are missing or not numbers.
proxy_rule take_proxy_rule(const Json::Value& rule);

/// @return The rule as web-server configuration.
std::string proxy_rule_text(const proxy_rule& rule, const tls_settings& tls);

#endif
