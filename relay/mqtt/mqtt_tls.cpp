#include "mqtt/mqtt_tls.h"

#include "mqtt/mqtt_resolve.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

namespace {

MqttTls& tls_of(const SSL* ssl) {
    return *static_cast<MqttTls*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
}

int on_verified(int good, X509_STORE_CTX* store) {
    if (good == 0) {
        const void* const ssl = X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx());
        tls_of(static_cast<const SSL*>(ssl)).refusal =
            X509_verify_cert_error_string(X509_STORE_CTX_get_error(store));
    }
    return good;
}

// libmosquitto names the address that it connects to; the broker is asked for by its name.
void on_progress(const SSL* ssl, int where, int /*unused*/) {
    MqttTls& tls = tls_of(ssl);
    if ((where & SSL_CB_HANDSHAKE_START) != 0) {
        SSL_set_tlsext_host_name(const_cast<SSL*>(ssl), tls.name.empty() ? nullptr : tls.name.data());
    } else if ((where & SSL_CB_HANDSHAKE_DONE) != 0) {
        tls.agreed = true;
    }
}

// OpenSSL would ask a terminal, and wait for it.
int no_passphrase(char* /*unused*/, int /*unused*/, int /*unused*/, void* /*unused*/) {
    return 0;
}

bool is_directory(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// A FIFO in place of a file would hold up the relay.
bool is_readable_kind(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode));
}

std::string failed(const std::string& what, const std::string& file) {
    const char* const reason = ERR_reason_error_string(ERR_peek_error());
    ERR_clear_error();
    return what + " " + file + ": " + (reason != nullptr ? reason : "can't be read");
}

std::string load_authorities(SSL_CTX* context, const std::string& path) {
    const bool directory = is_directory(path);
    const bool good =
        is_readable_kind(path) && SSL_CTX_load_verify_locations(context, directory ? nullptr : path.c_str(),
                                                                directory ? path.c_str() : nullptr) == 1;
    return good ? "" : failed("authorities", path);
}

std::string load_own(SSL_CTX* context, const MqttSettings& settings) {
    if (settings.certificate.empty()) {
        return "";
    }
    if (!is_readable_kind(settings.certificate) ||
        SSL_CTX_use_certificate_chain_file(context, settings.certificate.c_str()) != 1) {
        return failed("certificate", settings.certificate);
    }
    if (!is_readable_kind(settings.key) ||
        SSL_CTX_use_PrivateKey_file(context, settings.key.c_str(), SSL_FILETYPE_PEM) != 1) {
        return failed("key", settings.key);
    }
    return "";
}

void check_host(SSL_CTX* context, const std::string& host) {
    X509_VERIFY_PARAM* const rules = SSL_CTX_get0_param(context);
    if (mqtt_resolve_is_address(host)) {
        X509_VERIFY_PARAM_set1_ip_asc(rules, host.c_str());
        return;
    }
    X509_VERIFY_PARAM_set_hostflags(rules, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    X509_VERIFY_PARAM_set1_host(rules, host.c_str(), host.size());
}

} // namespace

std::string mqtt_tls_open(MqttTls& tls, const MqttSettings& settings) {
    ERR_clear_error();
    tls.name = mqtt_resolve_is_address(settings.host) ? "" : settings.host;
    tls.refusal.clear();
    tls.agreed = false;
    tls.context.reset(SSL_CTX_new(TLS_client_method()));
    SSL_CTX* const context = tls.context.get();
    if (context == nullptr) {
        return "no TLS";
    }
    SSL_CTX_set_app_data(context, &tls);
    SSL_CTX_set_default_passwd_cb(context, no_passphrase);
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, on_verified);
    SSL_CTX_set_info_callback(context, on_progress);
    check_host(context, settings.host);
    const std::string problem = load_authorities(context, settings.ca);
    return problem.empty() ? load_own(context, settings) : problem;
}
