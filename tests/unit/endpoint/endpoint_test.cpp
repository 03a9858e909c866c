// A client's end of the daemon's datagram socket.
#include "endpoint/endpoint.h"

#include "support/bound_socket.h"
#include "support/private_dir.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

std::vector<uint64_t> random_numbers; // what comes next; the last one comes for ever, none is a failure

// Bound to an address of the name "endpoint-test".
struct Bound {
    Bound() : fd(socket(AF_UNIX, SOCK_DGRAM, 0)), good(endpoint_bind(fd, "endpoint-test")), error(errno) {}
    ~Bound() {
        close(fd);
    }
    Bound(const Bound&) = delete;
    Bound& operator=(const Bound&) = delete;

    sockaddr_un address() const {
        sockaddr_un own = {};
        socklen_t length = sizeof own;
        EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&own), &length), 0);
        EXPECT_EQ(length, 110U);
        return own;
    }

    int fd;
    bool good;
    int error;
};

std::string expected_name(const char* number) {
    return "endpoint-test-" + std::to_string(getpid()) + "-" + number;
}

} // namespace

extern "C" ssize_t __wrap_getrandom(void* buffer, size_t size, unsigned /*flags*/) {
    EXPECT_EQ(size, sizeof random_numbers.front());
    if (random_numbers.empty()) {
        errno = EIO;
        return -1;
    }
    memcpy(buffer, &random_numbers.front(), size);
    if (random_numbers.size() > 1) {
        random_numbers.erase(random_numbers.begin());
    }
    return static_cast<ssize_t>(size);
}

TEST(EndpointAddress, IsAbstractFillsAll110BytesAndNamesItsProcess) {
    random_numbers = {0xab};
    const Bound bound;
    ASSERT_TRUE(bound.good);
    const sockaddr_un own = bound.address();
    EXPECT_EQ(own.sun_path[0], '\0');
    EXPECT_EQ(std::string(own.sun_path + 1), expected_name("00000000000000ab"));
}

TEST(EndpointAddress, OneThatIsTakenIsReplacedWithAnother) {
    random_numbers = {1, 1, 1, 2};
    const Bound first;
    const Bound second;
    ASSERT_TRUE(first.good && second.good);
    EXPECT_EQ(std::string(second.address().sun_path + 1), expected_name("0000000000000002"));
    random_numbers = {1};
    const Bound third;
    EXPECT_FALSE(third.good) << "tried for ever";
    EXPECT_EQ(third.error, EADDRINUSE);
}

TEST(EndpointAddress, WithoutRandomNumbersThereIsNone) {
    random_numbers = {};
    const Bound bound;
    EXPECT_FALSE(bound.good);
    EXPECT_EQ(bound.error, EIO);
}

TEST(EndpointFile, IsTheSameUntilTheSocketIsMadeAnew) {
    const PrivateDir directory;
    const std::string path = directory.path / "socket";
    EXPECT_FALSE(endpoint_file(path));
    std::optional<EndpointFile> before;
    {
        const BoundSocket daemon(path);
        before = endpoint_file(path);
        ASSERT_TRUE(before);
        chmod(path.c_str(), 0600);
        EXPECT_TRUE(endpoint_same_file(*before, *endpoint_file(path)));
    }
    rename(path.c_str(), (path + ".old").c_str()); // so that its number is not given out again
    const BoundSocket next(path);
    EXPECT_FALSE(endpoint_same_file(*before, *endpoint_file(path)));
}

TEST(EndpointFile, OneWithTheSameNumberMadeAtAnotherTimeIsAnother) {
    const EndpointFile file = {1, 2, {3, 4}};
    EXPECT_TRUE(endpoint_same_file(file, {1, 2, {3, 4}}));
    for (const EndpointFile& other :
         {EndpointFile{9, 2, {3, 4}}, {1, 9, {3, 4}}, {1, 2, {9, 4}}, {1, 2, {3, 9}}}) {
        EXPECT_FALSE(endpoint_same_file(file, other));
    }
}
