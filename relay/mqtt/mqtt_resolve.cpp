#include "mqtt/mqtt_resolve.h"

#include <array>
#include <event2/util.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

namespace {

constexpr char kQueryLimitS[] = "5";
constexpr char kQueries[] = "2"; // of a name, to one name server after the other

std::string text_of(const sockaddr* address, socklen_t length) {
    std::array<char, NI_MAXHOST> text = {};
    const int error = getnameinfo(address, length, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST);
    return error == 0 ? text.data() : "";
}

void on_answer(int error, evutil_addrinfo* first, void* argument) {
    if (error == EVUTIL_EAI_CANCEL) {
        return; // there may be no resolver any more
    }
    auto& resolver = *static_cast<MqttResolver*>(argument);
    for (const evutil_addrinfo* one = first; one != nullptr; one = one->ai_next) {
        const std::string text = text_of(one->ai_addr, one->ai_addrlen);
        if (!text.empty()) {
            resolver.addresses.push_back(text);
        }
    }
    if (first != nullptr) {
        evutil_freeaddrinfo(first);
    }
    if (resolver.addresses.empty()) {
        resolver.problem = std::string("no address: ") + evutil_gai_strerror(error);
    }
    resolver.request = nullptr;
    resolver.done();
}

} // namespace

bool mqtt_resolve_is_address(const std::string& host) {
    in6_addr address = {};
    return evutil_inet_pton(AF_INET, host.c_str(), &address) == 1 ||
           evutil_inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

void mqtt_resolve(event_base* base, MqttResolver& resolver, const std::string& host) {
    resolver.addresses.clear();
    resolver.problem.clear();
    if (mqtt_resolve_is_address(host)) {
        resolver.addresses = {host};
        return resolver.done();
    }
    evdns_set_log_fn([](int, const char*) {}); // the result says it, once
    // Made anew each time: the name servers may have changed with the network.
    resolver.dns.reset(
        evdns_base_new(base, EVDNS_BASE_INITIALIZE_NAMESERVERS | EVDNS_BASE_DISABLE_WHEN_INACTIVE));
    if (!resolver.dns) {
        resolver.problem = "no name server";
        return resolver.done();
    }
    evdns_base_set_option(resolver.dns.get(), "timeout:", kQueryLimitS);
    evdns_base_set_option(resolver.dns.get(), "attempts:", kQueries);
    evutil_addrinfo hints = {};
    hints.ai_flags = EVUTIL_AI_ADDRCONFIG;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    resolver.request =
        evdns_getaddrinfo(resolver.dns.get(), host.c_str(), nullptr, &hints, on_answer, &resolver);
}

void mqtt_resolve_end(MqttResolver& resolver) {
    if (resolver.request != nullptr) {
        evdns_getaddrinfo_cancel(std::exchange(resolver.request, nullptr));
    }
    resolver.dns.reset();
}
