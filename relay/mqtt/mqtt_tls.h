// TLS to a broker: its certificate must be good, of one of our authorities, and name the host that was asked
// for, whatever address that has.
#ifndef TAVOR_RELAY_MQTT_TLS_H
#define TAVOR_RELAY_MQTT_TLS_H

#include "mqtt/mqtt_settings.h"

#include <memory>
#include <openssl/ssl.h>

struct SslContextFree {
    void operator()(SSL_CTX* context) const {
        SSL_CTX_free(context);
    }
};

struct MqttTls {
    std::string name;    // of the broker, none when it is asked for by address
    std::string refusal; // why its certificate is not taken
    bool agreed = false; // the handshake is done
    std::unique_ptr<SSL_CTX, SslContextFree> context;
};

// Reads the files anew, so that renewed ones count from the next connection on. Returns what is wrong,
// nothing when all is well. It is kept where it is until its context has ended.
std::string mqtt_tls_open(MqttTls& tls, const MqttSettings& settings);

#endif
