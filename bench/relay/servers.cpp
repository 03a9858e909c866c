#include "relay/servers.h"

#include "support/tcp_peer.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <pty.h>
#include <stdexcept>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace {

bool answers(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return connected;
}

void wait_for(int port, const char* name) {
    if (!wait_until([&] { return answers(port); })) {
        throw std::runtime_error(std::string(name) + " does not listen");
    }
}

} // namespace

RelayServer::RelayServer(const std::string& daemon, const PrivateDir& directory)
    : socket((directory.path / "relay.sock").string()), port(free_tcp_port()),
      process(std::make_unique<Child>(Arguments{TAVOR_RELAY_PROGRAM, "--daemon", daemon, "--socket", socket,
                                                "--listen", std::to_string(port)},
                                      (directory.path / "relay.log").string())) {
    wait_for(port, "the relay");
    if (!wait_until([&] { return std::filesystem::is_socket(socket); })) {
        throw std::runtime_error("the relay has no socket");
    }
}

GpsdServer::GpsdServer(const PrivateDir& directory) : port(free_tcp_port()) {
    termios raw = {};
    cfmakeraw(&raw);
    raw.c_cflag |= CREAD | CLOCAL;
    int gpsds_end = -1;
    std::array<char, 64> name = {};
    if (openpty(&terminal, &gpsds_end, nullptr, &raw, nullptr) != 0 ||
        ttyname_r(gpsds_end, name.data(), name.size()) != 0) {
        throw std::runtime_error("no pseudo-terminal");
    }
    fcntl(terminal, F_SETFL, O_NONBLOCK);
    fcntl(terminal, F_SETFD, FD_CLOEXEC);
    // It writes nothing to the device, and reads it also without clients, as the relay does.
    process = std::make_unique<Child>(
        Arguments{"/usr/sbin/gpsd", "-N", "-n", "-b", "-S", std::to_string(port), name.data()},
        (directory.path / ("gpsd." + std::to_string(port))).string());
    wait_for(port, "gpsd");
    close(gpsds_end);
}

GpsdServer::~GpsdServer() {
    process->end(SIGTERM);
    close(terminal);
}

void servers_feed(const std::vector<std::unique_ptr<GpsdServer>>& gpsds, std::string_view bytes) {
    for (const auto& gpsd : gpsds) {
        [[maybe_unused]] const ssize_t written = write(gpsd->terminal, bytes.data(), bytes.size());
    }
}
