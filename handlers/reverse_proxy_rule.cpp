#include "reverse_proxy_rule.h"

#include "host_config.h"
#include "host_paths.h"

namespace {

// The library would read a missing member and null as 0 and a boolean as 0 or 1; a port has to be a number.
std::int32_t take_port(const Json::Value& rule, const char* key) {
    const Json::Value& value = rule[key];
    if (!value.isNumeric()) {
        throw Json::LogicError(std::string("Value of ") + key + " is not convertible to Int.");
    }
    return value.asInt();
}

// The listening side of a TLS rule.
std::string tls_lines(const proxy_rule& rule, const tls_settings& tls) {
    std::string text = "\tSSLEngine on\n"
                       "\tSSLCipherSuite " +
                       tls.ciphers + '\n';
    text += '\t' + tls.protocols + '\n'; // KEPT: the bare list, with no directive's name before it
    text += std::string("\tSSLCertificateFile \"") + kServerCertificate + "\"\n";
    if (tls.has_chain) {
        text += std::string("\tSSLCertificateChainFile \"") + kChainCertificate + "\"\n";
    }
    if (!rule.hsts) { // KEPT: "hsts" leaves the header out
        text += "\tHeader set Strict-Transport-Security \"max-age=63072000\"\n";
    }
    return text;
}

} // namespace

tls_settings host_tls_settings() {
    tls_settings tls;
    (void)get_ssl_cipher(tls.ciphers); // these two always succeed
    (void)get_ssl_protocol(tls.protocols);
    tls.has_chain = get_uca_file_exist() != 0;
    return tls;
}

proxy_rule take_proxy_rule(const Json::Value& rule) {
    proxy_rule taken;
    taken.port = take_port(rule, "port");
    taken.des_port = take_port(rule, "des_port");
    taken.protocol = rule.get("protocol", "http").asString();
    taken.des_protocol = rule.get("des_protocol", "http").asString();
    taken.hsts = rule.get("hsts", false).asBool();
    taken.host_name = rule.get("host_name", "").asString();
    (void)rule.get("proxy_timeout", 60).asInt(); // KEPT: must be a number but changes nothing; both time-outs are 60
    return taken;
}

std::string proxy_rule_text(const proxy_rule& rule, const tls_settings& tls) {
    const std::string port = std::to_string(rule.port);
    const std::string back_end = rule.des_protocol + "://" + rule.host_name + ':' + std::to_string(rule.des_port) + '/';
    std::string text = "Listen " + port + "\n<VirtualHost *:" + port + ">\n";
    if (rule.protocol == "https") {
        text += tls_lines(rule, tls);
    }
    if (rule.des_protocol == "https" || rule.des_protocol == "wss") {
        text += "\tSSLProxyEngine on\n"
                "\tSSLProxyVerify none\n"
                "\tSSLProxyCheckPeerCN off\n"
                "\tSSLProxyCheckPeerName off\n"
                "\tSSLProxyCheckPeerExpire off\n";
    }
    text += "\tHeader set X-Frame-Options \"ALLOW-FROM *\"\n"
            "\tProxyPreserveHost on\n";
    text += "\tProxyPass / " + back_end + " connectiontimeout=60 timeout=60\n";
    text += "\tProxyPassReverse / " + back_end + '\n';
    return text + "</VirtualHost>\n";
}
