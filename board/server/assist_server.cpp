#include "server/assist_server.h"

#include "server/clock_file.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mbedtls/md5.h>
#include <mbedtls/version.h>
#include <memory>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kBacklog = 64;
constexpr size_t kBlockSize = 1024; // bytes handed over at once, of a body that is not sent in one go
constexpr std::chrono::milliseconds kGonePollPause(50);
constexpr uint64_t kUsPerNs = 1000;
constexpr uint32_t kSecondsPerHour = 3600;
constexpr uint32_t kFileHours = kChipSegments * kChipSegmentHours;
constexpr uint32_t kMostNumbers = 99; // of numbered files
constexpr const char* kNeeded[] = {"vendor", "project", "device_id"};

using Lock = std::unique_lock<std::mutex>;

// A body that is sent piece by piece.
struct Transfer {
    AssistServer& server;
    std::string body;
    AssistFaultState faults;
    int socket;
};

struct ResponseDeleter {
    void operator()(MHD_Response* response) const {
        MHD_destroy_response(response);
    }
};
using Response = std::unique_ptr<MHD_Response, ResponseDeleter>;

// Whether the client has closed its side.
bool is_gone(int socket) {
    char byte = 0;
    const ssize_t size = recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR);
}

// Waits while the server stalls and the client is there. Returns whether the transfer goes on.
bool sit_out_stall(const Transfer& transfer) {
    AssistServer& server = transfer.server;
    Lock lock(server.mutex);
    while (!server.closing && server.faults.of(AssistFault::stall) != 0 && !is_gone(transfer.socket)) {
        server.changed.wait_for(lock, kGonePollPause);
    }
    return !server.closing && !is_gone(transfer.socket);
}

// Waits as long as this many bytes take. Returns whether the transfer goes on.
bool sit_out_slowness(const Transfer& transfer, size_t bytes) {
    const uint64_t rate = transfer.faults.of(AssistFault::slow);
    const std::chrono::duration<double> pause(static_cast<double>(bytes) / static_cast<double>(rate));
    AssistServer& server = transfer.server;
    Lock lock(server.mutex);
    server.changed.wait_for(lock, pause, [&] { return server.closing; });
    return !server.closing;
}

// A connection that is dissolved is reset at once; closing it would end it in good order.
void reset(int socket) {
    sockaddr nobody = {};
    nobody.sa_family = AF_UNSPEC;
    (void)connect(socket, &nobody, sizeof nobody); // a client that has gone needs none
}

ssize_t send_piece(void* argument, uint64_t position, char* buffer, size_t room) {
    const Transfer& transfer = *static_cast<const Transfer*>(argument);
    const bool in_mid_body = position >= transfer.body.size() / 2;
    if (in_mid_body && transfer.faults.of(AssistFault::reset) != 0) {
        reset(transfer.socket);
        return MHD_CONTENT_READER_END_WITH_ERROR;
    }
    if (in_mid_body && transfer.faults.of(AssistFault::stall) != 0 && !sit_out_stall(transfer)) {
        return MHD_CONTENT_READER_END_WITH_ERROR;
    }
    const uint64_t left = transfer.body.size() - position;
    const auto size = static_cast<size_t>(std::min<uint64_t>({room, kBlockSize, left}));
    if (transfer.faults.of(AssistFault::slow) != 0 && !sit_out_slowness(transfer, size)) {
        return MHD_CONTENT_READER_END_WITH_ERROR;
    }
    std::copy_n(transfer.body.begin() + static_cast<ptrdiff_t>(position), size, buffer);
    return static_cast<ssize_t>(size);
}

void free_transfer(void* argument) {
    delete static_cast<Transfer*>(argument);
}

int socket_of(MHD_Connection* connection) {
    return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

Response whole(const std::string& body) {
    return Response(
        MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY));
}

Response in_pieces(AssistServer& server, MHD_Connection* connection, const std::string& body,
                   const AssistFaultState& faults) {
    auto* transfer = new Transfer{server, body, faults, socket_of(connection)};
    return Response(
        MHD_create_response_from_callback(body.size(), kBlockSize, send_piece, transfer, free_transfer));
}

MHD_Result answer_text(MHD_Connection* connection, unsigned status, const char* text) {
    return MHD_queue_response(connection, status, whole(text).get());
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c; });
    return text;
}

MHD_Result answer_file(AssistServer& server, MHD_Connection* connection, std::string body,
                       const AssistFaultState& faults) {
    std::string etag = assist_md5(body);
    if (faults.of(AssistFault::upper_etag) != 0) {
        etag = upper(etag);
    }
    if (faults.of(AssistFault::wrong_content) != 0) {
        body.back() = static_cast<char>(~body.back());
    }
    const bool broken = faults.of(AssistFault::reset) != 0 || faults.of(AssistFault::stall) != 0 ||
                        faults.of(AssistFault::slow) != 0;
    const Response response = broken ? in_pieces(server, connection, body, faults) : whole(body);
    if (faults.of(AssistFault::no_etag) == 0) {
        MHD_add_response_header(response.get(), "ETag", ("\"" + etag + "\"").c_str());
    }
    MHD_add_response_header(response.get(), "Content-Type", "application/octet-stream");
    return MHD_queue_response(connection, MHD_HTTP_OK, response.get());
}

std::string query_text(MHD_Connection* connection) {
    std::string text;
    const auto add = [](void* to, MHD_ValueKind, const char* key, const char* value) {
        auto& query = *static_cast<std::string*>(to);
        query += (query.empty() ? "?" : "&") + std::string(key) + "=" + (value == nullptr ? "" : value);
        return MHD_YES;
    };
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, add, &text);
    return text;
}

bool has_query(MHD_Connection* connection) {
    return std::all_of(std::begin(kNeeded), std::end(kNeeded), [&](const char* key) {
        const char* value = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, key);
        return value != nullptr && *value != '\0';
    });
}

uint32_t hour_now(const AssistServer& server) {
    const auto utc_us = static_cast<uint64_t>(clock_utc_ns(*server.clock)) / kUsPerNs;
    return static_cast<uint32_t>(chip_gps_seconds(utc_us) / kSecondsPerHour);
}

MHD_Result refuse(AssistServer& server, MHD_Connection* connection, unsigned status, const char* text) {
    {
        const Lock lock(server.mutex);
        ++server.refused;
    }
    return answer_text(connection, status, text);
}

MHD_Result answer(AssistServer& server, MHD_Connection* connection, const std::string& name) {
    ChipOrbitFile file = ChipOrbitFile::gps;
    uint32_t hour = 0;
    if (!assist_file_of(name, hour_now(server), &file, &hour)) {
        return refuse(server, connection, MHD_HTTP_NOT_FOUND, "no such file\n");
    }
    if (!has_query(connection)) {
        return refuse(server, connection, MHD_HTTP_BAD_REQUEST, "vendor, project and device_id are needed\n");
    }
    AssistFaultState faults;
    {
        const Lock lock(server.mutex);
        ++server.requests[static_cast<size_t>(file)];
        faults = assist_fault_next(server.faults);
    }
    if (faults.of(AssistFault::not_found) != 0) {
        return answer_text(connection, MHD_HTTP_NOT_FOUND, "not found\n");
    }
    const auto stale = static_cast<uint32_t>(faults.of(AssistFault::stale));
    return answer_file(server, connection, chip_orbit_file(file, hour - stale, server.seed), faults);
}

MHD_Result take_request(void* argument, MHD_Connection* connection, const char* url, const char* method,
                        const char*, const char*, size_t*, void**) {
    AssistServer& server = *static_cast<AssistServer*>(argument);
    if (strcmp(method, MHD_HTTP_METHOD_GET) != 0) {
        return refuse(server, connection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET\n");
    }
    {
        const std::string query = query_text(connection);
        const Lock lock(server.mutex);
        server.last_url = url + query;
    }
    return answer(server, connection, *url == '/' ? url + 1 : url);
}

// The number in a name like PREFIX7.DAT; 0: it is none of these.
uint32_t number_in(const std::string& name, const std::string& prefix) {
    const std::string suffix = ".DAT";
    if (name.size() <= prefix.size() + suffix.size() || name.rfind(prefix, 0) != 0 ||
        !name.ends_with(suffix)) {
        return 0;
    }
    const std::string digits = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
    const bool good = digits.size() <= 2 && digits.find_first_not_of("0123456789") == std::string::npos;
    const auto number = good ? static_cast<uint32_t>(std::stoul(digits)) : 0;
    return number <= kMostNumbers ? number : 0;
}

} // namespace

std::string assist_open(AssistServer& server, const BoardClock& clock, uint32_t seed) {
    server.clock = &clock;
    server.seed = seed;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    server.listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (server.listener < 0 || bind(server.listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(server.listener, kBacklog) != 0 ||
        getsockname(server.listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return std::string("can't listen for the assistance server: ") + strerror(errno);
    }
    server.port = ntohs(address.sin_port);
    return "";
}

std::string assist_start(AssistServer& server) {
    server.daemon =
        MHD_start_daemon(MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD, 0, nullptr, nullptr,
                         take_request, &server, MHD_OPTION_LISTEN_SOCKET, server.listener, MHD_OPTION_END);
    if (server.daemon == nullptr) {
        return "can't start the assistance server";
    }
    server.listener = -1; // the daemon's
    return "";
}

void assist_close(AssistServer& server) {
    {
        const Lock lock(server.mutex);
        server.closing = true;
        server.changed.notify_all();
    }
    if (server.daemon != nullptr) {
        MHD_stop_daemon(server.daemon);
        server.daemon = nullptr;
    }
    if (server.listener >= 0) {
        close(server.listener);
        server.listener = -1;
    }
}

std::string assist_address(const AssistServer& server) {
    return server.port == 0 ? "" : "127.0.0.1:" + std::to_string(server.port);
}

std::string assist_fault(AssistServer& server, const std::string& name, const std::string& value) {
    const Lock lock(server.mutex);
    std::string error = assist_fault_set(server.faults, name, value);
    server.changed.notify_all();
    return error;
}

bool assist_file_of(const std::string& name, uint32_t now_hour, ChipOrbitFile* file, uint32_t* start_hour) {
    const uint32_t both = number_in(name, "XOD_GR_3_");
    const uint32_t gps = number_in(name, "XOD_GPS_3_");
    uint32_t number = 1;
    if (both != 0 || gps != 0) {
        *file = both != 0 ? ChipOrbitFile::gps_glonass : ChipOrbitFile::gps;
        number = both + gps;
    } else if (name == "XOD_BDS_3.DAT") {
        *file = ChipOrbitFile::beidou;
    } else if (name == "XOD_GAL_3.DAT") {
        *file = ChipOrbitFile::galileo;
    } else {
        return false;
    }
    *start_hour = now_hour / kChipSegmentHours * kChipSegmentHours + (number - 1) * kFileHours;
    return true;
}

std::string assist_md5(const std::string& content) {
    constexpr size_t kDigestSize = 16;
    constexpr char kDigits[] = "0123456789abcdef";
    std::array<unsigned char, kDigestSize> digest = {};
#if MBEDTLS_VERSION_MAJOR >= 3
    constexpr auto md5 = mbedtls_md5;
#else
    constexpr auto md5 = mbedtls_md5_ret;
#endif
    md5(reinterpret_cast<const unsigned char*>(content.data()), content.size(), digest.data());
    std::string text;
    for (const unsigned char byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}
