#include "mqtt/mqtt_connection.h"

#include "mqtt/mqtt_queue.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <event2/util.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kAnswerLimitS = 20;      // from the address to the broker's consent
constexpr int kAcknowledgeLimitS = 60; // of the oldest message on its way
constexpr int kWaitFirstS = 1, kWaitMaxS = 60;
constexpr int kSteadyS = 60; // a connection that held so long was a good one
constexpr int kQos = 1;
constexpr char kTlsFails[] = "TLS fails: ";

// A broker that is not subscribed to answers with some bytes to each message and sign of life, and with its
// certificates before. One that sends more is disconnected before its packets, which may announce 256 MiB,
// cost memory.
constexpr uint64_t kGreetingBytes = 65536;
constexpr uint64_t kAnswerBytes = 128; // in a record of TLS, which takes 85 with CBC and SHA-384

void say(MqttConnection& c, const std::string& what) {
    if (c.told != what) {
        c.told = what;
        printf("tavor-relay: MQTT broker %s: %s\n", c.settings->host.c_str(), what.c_str());
    }
}

// Before the next attempt: between half and all of a time that doubles.
std::chrono::milliseconds next_wait(MqttConnection& c, bool steady) {
    const auto first = kWaitFirstS * c.settings->second;
    c.wait = steady || c.wait == c.wait.zero() ? first : std::min(2 * c.wait, kWaitMaxS * c.settings->second);
    uint16_t random = 0;
    evutil_secure_rng_get_bytes(&random, sizeof random);
    return c.wait - c.wait / 2 * random / UINT16_MAX;
}

// The events go at once: libmosquitto may have closed the socket, and its number is free for others.
void drop_socket(MqttConnection& c) {
    c.readable.reset();
    c.writable.reset();
}

void end(MqttConnection& c, const std::string& problem) {
    const bool was_up = std::exchange(c.up, false);
    const bool steady = was_up && Clock::now() - c.began >= kSteadyS * c.settings->second;
    drop_socket(c);
    c.client.reset();
    c.accepted = false;
    c.in_flight = 0;
    event_del(c.second.get());
    say(c, problem);
    if (was_up) {
        c.events.lost();
    }
    event_arm(c.step, next_wait(c, steady));
}

// The broker's end came, and no word why: most often TLS or none is spoken at a port for the other.
std::string closed_problem(const MqttConnection& c) {
    std::string closed = "the connection was closed";
    if (c.accepted) {
        return closed;
    }
    if (c.settings->ca.empty()) {
        return closed + " instead of an answer; if TLS is spoken at its port, that takes --mqtt-ca";
    }
    if (!c.tls.agreed) {
        return closed + " before TLS was agreed; is it spoken at its port?";
    }
    // TLS 1.3 refuses our certificate after the handshake, where the end of the connection may overtake the
    // reason. A reason that came at another attempt stands.
    return c.told.starts_with(kTlsFails) ? c.told
                                         : closed + " instead of an answer; does it take our certificate?";
}

// A socket ends as closed or as reset, as it happens: one text for both, so that the log has it once.
bool is_closed(int result, int error) {
    return result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_TLS ||
           (result == MOSQ_ERR_ERRNO && (error == ECONNRESET || error == EPIPE || error == EPROTO));
}

std::string problem_of(const MqttConnection& c, int result) {
    const int error = errno;
    if (!c.tls.refusal.empty()) {
        return "its certificate is refused: " + c.tls.refusal;
    }
    if (!c.refusal.empty()) {
        return c.refusal;
    }
    if (!c.failure.empty()) {
        return kTlsFails + c.failure;
    }
    if (is_closed(result, error)) {
        return closed_problem(c);
    }
    return result == MOSQ_ERR_ERRNO ? strerror(error) : mosquitto_strerror(result);
}

// Looks for what is next after each call of libmosquitto; the end of a connection is a step of its own when
// the call came from the owner.
void follow(MqttConnection& c) {
    if (mosquitto_socket(c.client.get()) < 0) {
        drop_socket(c);
        event_arm(c.step, std::chrono::milliseconds(0));
    } else if (mosquitto_want_write(c.client.get())) {
        event_add(c.writable.get(), nullptr);
    }
}

tcp_info info_of(const MqttConnection& c) {
    tcp_info info = {};
    socklen_t length = sizeof info;
    getsockopt(mosquitto_socket(c.client.get()), IPPROTO_TCP, TCP_INFO, &info, &length);
    return info;
}

bool sends_too_much(const MqttConnection& c) {
    return info_of(c).tcpi_bytes_received > c.expected;
}

// Whether there was a connection: the first word is ours.
bool has_sent(const MqttConnection& c) {
    return info_of(c).tcpi_data_segs_out > 0;
}

// The result of the attempt to connect, 0 when there is none.
int socket_error(const MqttConnection& c) {
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(mosquitto_socket(c.client.get()), SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

// A socket that ended before the broker's consent. Libmosquitto may have taken its error already and tries
// the handshake of TLS for ever then, with the socket always ready.
bool has_ended(const MqttConnection& c) {
    char next = 0;
    return !c.up && recv(mosquitto_socket(c.client.get()), &next, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

void on_socket(evutil_socket_t /*unused*/, short what, void* argument) {
    auto& c = *static_cast<MqttConnection*>(argument);
    mosquitto* const client = c.client.get();
    if (const int error = socket_error(c); error != 0) {
        if (error == ECONNRESET) { // what came before it may say why
            mosquitto_loop_read(client, 1);
        }
        errno = error;
        return end(c, problem_of(c, MOSQ_ERR_ERRNO));
    }
    if (has_ended(c)) {
        return end(c, has_sent(c) ? problem_of(c, MOSQ_ERR_CONN_LOST) : "no connection could be made");
    }
    if (sends_too_much(c)) {
        return end(c, "it sends more than answers");
    }
    // Until the broker's consent it is heard before it is written to: an end by writing would hide its
    // reason.
    int result = (what & EV_READ) != 0 || !c.up ? mosquitto_loop_read(client, 1) : MOSQ_ERR_SUCCESS;
    if (result == MOSQ_ERR_SUCCESS && (what & EV_WRITE) != 0) {
        result = mosquitto_loop_write(client, 1);
    }
    if (result != MOSQ_ERR_SUCCESS) {
        return end(c, problem_of(c, result));
    }
    if (c.accepted && !c.up) {
        c.up = true;
        c.began = Clock::now();
        say(c, "connected");
        c.events.connected();
    }
    follow(c);
}

void on_connect(mosquitto* /*unused*/, void* argument, int code) {
    auto& c = *static_cast<MqttConnection*>(argument);
    c.accepted = code == 0;
    c.refusal = code == 0 ? "" : mosquitto_connack_string(code);
}

// OpenSSL's errors come with libmosquitto's log only: "OpenSSL Error[0]: error:0A00010B:SSL routines::wrong
// version number".
void on_log(mosquitto* /*unused*/, void* argument, int level, const char* text) {
    auto& c = *static_cast<MqttConnection*>(argument);
    const std::string_view line(text);
    if (level == MOSQ_LOG_ERR && line.starts_with("OpenSSL Error")) {
        c.failure = line.substr(line.rfind(':') + 1);
    }
    if (c.failure == "unexpected eof while reading") {
        c.failure.clear(); // says no more than the end of a connection without TLS
    }
}

void on_publish(mosquitto* /*unused*/, void* argument, int number) {
    auto& c = *static_cast<MqttConnection*>(argument);
    c.acknowledged = Clock::now();
    c.in_flight -= c.in_flight > 0 ? 1 : 0;
    c.events.acknowledged(number);
}

// A client of libmosquitto for one connection: what it keeps of messages ends with it. Returns its result.
int make_client(MqttConnection& c) {
    const MqttSettings& settings = *c.settings;
    c.client.reset(mosquitto_new(settings.id.c_str(), true, &c));
    mosquitto* const client = c.client.get();
    if (client == nullptr) {
        return MOSQ_ERR_NOMEM;
    }
    mosquitto_connect_callback_set(client, on_connect);
    mosquitto_publish_callback_set(client, on_publish);
    mosquitto_log_callback_set(client, on_log);
    mosquitto_max_inflight_messages_set(client, kMqttInFlightMax + 1); // a status besides
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    if (!settings.ca.empty()) {
        mosquitto_void_option(client, MOSQ_OPT_SSL_CTX, c.tls.context.get());
        mosquitto_int_option(client, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
    }
    const auto size = static_cast<int>(c.will.payload.size());
    const int result =
        mosquitto_will_set(client, c.will.topic.c_str(), size, c.will.payload.data(), kQos, true);
    if (result != MOSQ_ERR_SUCCESS || settings.user.empty()) {
        return result;
    }
    return mosquitto_username_pw_set(client, settings.user.c_str(),
                                     settings.password.empty() ? nullptr : settings.password.c_str());
}

// Begins to connect to one of the addresses, the next one each time.
void connect(MqttConnection& c) {
    if (c.resolver.addresses.empty()) {
        return end(c, c.resolver.problem);
    }
    const std::string address = c.resolver.addresses[c.attempts++ % c.resolver.addresses.size()];
    c.tls.refusal.clear();
    const std::string problem = c.settings->ca.empty() ? "" : mqtt_tls_open(c.tls, *c.settings);
    if (!problem.empty()) {
        return end(c, problem);
    }
    c.refusal.clear();
    c.failure.clear();
    c.expected = kGreetingBytes;
    int result = make_client(c);
    if (result == MOSQ_ERR_SUCCESS) {
        result = mosquitto_connect_async(c.client.get(), address.c_str(), c.settings->port,
                                         c.settings->keepalive_s);
    }
    if (result != MOSQ_ERR_SUCCESS) {
        return end(c, problem_of(c, result));
    }
    const int fd = mosquitto_socket(c.client.get());
    c.readable.reset(event_new(c.base, fd, EV_READ | EV_PERSIST, on_socket, &c));
    c.writable.reset(event_new(c.base, fd, EV_WRITE, on_socket, &c));
    event_add(c.readable.get(), nullptr);
    event_add(c.writable.get(), nullptr); // also tells that there is a connection
    c.began = Clock::now();
    event_arm(c.second, c.settings->second);
}

void on_step(evutil_socket_t /*unused*/, short /*unused*/, void* argument) {
    auto& c = *static_cast<MqttConnection*>(argument);
    if (c.client) {
        end(c, problem_of(c, MOSQ_ERR_CONN_LOST));
    } else if (c.resolving) {
        c.resolving = false;
        mqtt_resolve_end(c.resolver);
        connect(c);
    } else {
        c.resolving = true;
        mqtt_resolve(c.base, c.resolver, c.settings->host);
    }
}

std::string limit_problem(const MqttConnection& c) {
    const auto now = Clock::now();
    if (!c.up && now - c.began >= kAnswerLimitS * c.settings->second) {
        return "no answer within 20 s";
    }
    if (c.in_flight > 0 && now - c.acknowledged >= kAcknowledgeLimitS * c.settings->second) {
        return "it acknowledges nothing for 60 s";
    }
    return "";
}

void on_second(evutil_socket_t /*unused*/, short /*unused*/, void* argument) {
    auto& c = *static_cast<MqttConnection*>(argument);
    std::string problem = limit_problem(c);
    if (problem.empty()) {
        const int result = mosquitto_loop_misc(c.client.get());
        problem = result == MOSQ_ERR_SUCCESS ? "" : problem_of(c, result);
    }
    if (!problem.empty()) {
        return end(c, problem);
    }
    c.expected += kAnswerBytes; // to a sign of life
    if (c.up) {
        c.events.second();
    }
    follow(c);
}

} // namespace

void mqtt_connection_open(MqttConnection& connection, event_base* base, const MqttSettings& settings) {
    connection.base = base;
    connection.settings = &settings;
    connection.resolver.done = [&connection] { event_arm(connection.step, std::chrono::milliseconds(0)); };
    connection.step.reset(event_new(base, -1, 0, on_step, &connection));
    connection.second.reset(event_new(base, -1, EV_PERSIST, on_second, &connection));
    event_arm(connection.step, std::chrono::milliseconds(0));
}

void mqtt_connection_close(MqttConnection& connection) {
    drop_socket(connection);
    connection.step.reset();
    connection.second.reset();
    connection.client.reset();
    mqtt_resolve_end(connection.resolver);
    connection.up = false;
}

bool mqtt_connection_is_up(const MqttConnection& connection) {
    return connection.up && mosquitto_socket(connection.client.get()) >= 0;
}

int mqtt_connection_publish(MqttConnection& connection, const std::string& topic,
                            const std::string& payload) {
    if (!mqtt_connection_is_up(connection)) {
        return 0;
    }
    int number = 0;
    const int result = mosquitto_publish(connection.client.get(), &number, topic.c_str(),
                                         static_cast<int>(payload.size()), payload.data(), kQos, true);
    follow(connection);
    if (result != MOSQ_ERR_SUCCESS) {
        return 0;
    }
    if (connection.in_flight++ == 0) {
        connection.acknowledged = Clock::now();
    }
    connection.expected += kAnswerBytes;
    return number;
}
