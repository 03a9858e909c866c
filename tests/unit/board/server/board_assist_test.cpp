// The assistance server, asked by a client that knows bare HTTP only.
#include "server/assist_server.h"

#include "server/clock_file.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr char kQuery[] = "?vendor=v&project=p&device_id=1";
constexpr uint32_t kSeed = 5;

// What came; ended tells whether the server closed in good order.
struct Answer {
    std::string head;
    std::string body;
    bool ended = false;

    unsigned status() const {
        return static_cast<unsigned>(strtoul(head.c_str() + head.find(' '), nullptr, 10));
    }
    // Value of a header line, empty when there is none. The name's case counts.
    std::string header(const std::string& name) const {
        const std::string begin = "\r\n" + name + ": ";
        const size_t at = head.find(begin);
        return at == std::string::npos
                   ? ""
                   : head.substr(at + begin.size(), head.find("\r\n", at + 2) - at - begin.size());
    }
};

struct BoardAssist : testing::Test {
    BoardAssist() {
        int64_t utc = 0;
        clock_parse("2027-01-01T13:00:00Z", &utc);
        board_clock_set_utc(clock, clock_host_time, utc);
        EXPECT_EQ(assist_open(server, clock, kSeed), "");
        EXPECT_EQ(assist_start(server), "");
    }
    ~BoardAssist() override {
        assist_close(server);
    }

    int connect_to() const {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(server.port);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return fd;
    }
    int ask(const std::string& target, const std::string& method = "GET") const {
        const int fd = connect_to();
        const std::string request = method + " /" + target + " HTTP/1.1\r\nHost: " + assist_address(server) +
                                    "\r\nConnection: close\r\n\r\n";
        EXPECT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(request.size()));
        return fd;
    }
    static Answer answer(int fd) {
        std::string all;
        char buffer[4096];
        ssize_t size = 0;
        while ((size = recv(fd, buffer, sizeof buffer, 0)) > 0) {
            all.append(buffer, static_cast<size_t>(size));
        }
        close(fd);
        const size_t end = all.find("\r\n\r\n");
        return end == std::string::npos ? Answer{all, "", size == 0}
                                        : Answer{all.substr(0, end + 2), all.substr(end + 4), size == 0};
    }
    Answer get(const std::string& name) const {
        return answer(ask(name + kQuery));
    }
    void fault(const std::string& name, const std::string& value) {
        EXPECT_EQ(assist_fault(server, name, value), "");
    }

    // GPS hour at which the current files start: 12:00 on that day.
    static constexpr uint32_t kHour = 411900;
    BoardClock clock = {};
    AssistServer server;
};

} // namespace

TEST_F(BoardAssist, HandsOutEveryFileWithItsSum) {
    const std::pair<const char*, ChipOrbitFile> files[] = {{"XOD_GR_3_1.DAT", ChipOrbitFile::gps_glonass},
                                                           {"XOD_GPS_3_1.DAT", ChipOrbitFile::gps},
                                                           {"XOD_BDS_3.DAT", ChipOrbitFile::beidou},
                                                           {"XOD_GAL_3.DAT", ChipOrbitFile::galileo}};
    for (const auto& [name, file] : files) {
        const Answer got = get(name);
        EXPECT_EQ(got.status(), 200U) << name;
        EXPECT_EQ(got.body, chip_orbit_file(file, kHour, kSeed)) << name;
        EXPECT_EQ(got.header("ETag"), "\"" + assist_md5(got.body) + "\"") << got.head;
        EXPECT_EQ(got.header("Content-Length"), std::to_string(got.body.size()));
        EXPECT_EQ(server.requests[static_cast<size_t>(file)], 1U);
    }
    EXPECT_EQ(server.refused, 0U);
    EXPECT_EQ(server.last_url, std::string("/XOD_GAL_3.DAT") + kQuery);
}

TEST(AssistSum, IsLowerCaseMd5) {
    EXPECT_EQ(assist_md5(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(assist_md5("abc"), "900150983cd24fb0d6963f7d28e17f72");
}

TEST_F(BoardAssist, FilesFollowTheBoardsClock) {
    const std::string before = get("XOD_GPS_3_1.DAT").body;
    board_clock_advance(clock, clock_host_time, 4LL * 3600 * 1000000000);
    EXPECT_EQ(get("XOD_GPS_3_1.DAT").body, before) << "six hours are one segment";
    board_clock_advance(clock, clock_host_time, 2LL * 3600 * 1000000000);
    EXPECT_EQ(get("XOD_GPS_3_1.DAT").body, chip_orbit_file(ChipOrbitFile::gps, kHour + 6, kSeed));
    EXPECT_EQ(get("XOD_GR_3_3.DAT").body, chip_orbit_file(ChipOrbitFile::gps_glonass, kHour + 150, kSeed))
        << "the numbered ones follow each other";
}

TEST_F(BoardAssist, UnknownNamesAndQueriesAreRefused) {
    for (const char* name :
         {"", "XOD_GR_3_.DAT", "XOD_GR_3_0.DAT", "XOD_GR_3_100.DAT", "XOD_GR_3_1x.DAT", "XOD_GR_3_-1.DAT",
          "xod_gal_3.dat", "XOD_GAL_3_1.DAT", "ZG_R.DAT", "../etc/passwd"}) {
        EXPECT_EQ(get(name).status(), 404U) << name;
    }
    for (const char* query : {"", "?vendor=v&project=p", "?vendor=v&device_id=1", "?project=p&device_id=1",
                              "?vendor=&project=p&device_id=1"}) {
        const Answer got = answer(ask(std::string("XOD_GAL_3.DAT") + query));
        EXPECT_EQ(got.status(), 400U) << query;
        EXPECT_EQ(got.header("ETag"), "");
    }
    EXPECT_EQ(answer(ask(std::string("XOD_GAL_3.DAT") + kQuery, "POST")).status(), 405U);
    EXPECT_EQ(server.refused, 16U);
    EXPECT_EQ(server.requests[static_cast<size_t>(ChipOrbitFile::galileo)], 0U);
}

TEST_F(BoardAssist, FaultsOfTheEtag) {
    fault("assist-no-etag", "1");
    EXPECT_EQ(get("XOD_GAL_3.DAT").header("ETag"), "");
    fault("assist-upper-etag", "1");
    const std::string upper = get("XOD_GAL_3.DAT").header("ETag");
    const Answer good = get("XOD_GAL_3.DAT");
    EXPECT_NE(upper, good.header("ETag"));
    EXPECT_EQ(strcasecmp(upper.c_str(), good.header("ETag").c_str()), 0);
    fault("assist-wrong-content", "1");
    const Answer wrong = get("XOD_GAL_3.DAT");
    EXPECT_EQ(wrong.header("ETag"), good.header("ETag"));
    EXPECT_NE(wrong.body, good.body);
    EXPECT_EQ(wrong.body.size(), good.body.size());
}

TEST_F(BoardAssist, AFileThatIsNotFoundHasNoEtag) {
    fault("assist-not-found", "2");
    for (const unsigned status : {404U, 404U, 200U}) {
        const Answer got = get("XOD_BDS_3.DAT");
        EXPECT_EQ(got.status(), status);
        EXPECT_EQ(got.header("ETag").empty(), status == 404);
    }
    EXPECT_EQ(server.requests[static_cast<size_t>(ChipOrbitFile::beidou)], 3U);
}

TEST_F(BoardAssist, AResetComesInMidBody) {
    fault("assist-reset", "on");
    const Answer got = get("XOD_GR_3_1.DAT");
    const std::string whole = chip_orbit_file(ChipOrbitFile::gps_glonass, kHour, kSeed);
    EXPECT_LT(got.body.size(), whole.size());
    EXPECT_FALSE(got.ended) << "reset, not closed";
}

TEST_F(BoardAssist, AStallEndsWithItsFaultOrTheServer) {
    for (const bool closes : {false, true}) {
        fault("assist-stall", "on");
        const int fd = ask(std::string("XOD_GR_3_1.DAT") + kQuery);
        char byte = 0;
        EXPECT_EQ(recv(fd, &byte, 1, MSG_WAITALL), 1) << "it has begun";
        if (closes) {
            assist_close(server);
            EXPECT_LT(answer(fd).body.size(), 12U * 4032);
            return;
        }
        fault("assist-stall", "off");
        const Answer rest = answer(fd);
        EXPECT_TRUE(rest.ended);
        EXPECT_EQ(rest.body, chip_orbit_file(ChipOrbitFile::gps_glonass, kHour, kSeed));
    }
}

TEST_F(BoardAssist, SlowAndStaleTakeNumbers) {
    fault("assist-slow", "500000");
    EXPECT_EQ(get("XOD_GAL_3.DAT").body, chip_orbit_file(ChipOrbitFile::galileo, kHour, kSeed));
    fault("assist-stale", "66");
    EXPECT_EQ(get("XOD_GAL_3.DAT").body, chip_orbit_file(ChipOrbitFile::galileo, kHour - 66, kSeed));
    fault("all", "off");
    EXPECT_EQ(get("XOD_GAL_3.DAT").body, chip_orbit_file(ChipOrbitFile::galileo, kHour, kSeed));
}

TEST_F(BoardAssist, ManyAskAtOnce) {
    std::vector<std::thread> clients;
    std::atomic<int> good = 0;
    for (int i = 0; i < 8; ++i) {
        clients.emplace_back([&] { good += get("XOD_GR_3_1.DAT").body.size() == 12U * 4032 ? 1 : 0; });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(good, 8);
}

TEST(AssistFaults, AreTakenByNameAndValue) {
    AssistFaultState faults;
    EXPECT_EQ(assist_fault_set(faults, "assist-stall", "on"), "");
    EXPECT_EQ(assist_fault_set(faults, "assist-no-etag", "2"), "");
    EXPECT_EQ(assist_fault_set(faults, "assist-slow", "100"), "");
    EXPECT_EQ(assist_fault_active(faults),
              (std::vector<std::string>{"assist-no-etag 2", "assist-stall on", "assist-slow 100"}));
    assist_fault_next(faults);
    EXPECT_EQ(assist_fault_active(faults),
              (std::vector<std::string>{"assist-no-etag 1", "assist-stall on", "assist-slow 100"}));
    EXPECT_EQ(assist_fault_set(faults, "assist-stall", "off"), "");
    for (const auto& [name, value] : {std::pair{"assist-stall", "yes"},
                                      {"assist-stall", "0"},
                                      {"assist-stall", "-1"},
                                      {"assist-stall", "1x"},
                                      {"assist-slow", "on"},
                                      {"assist-stale", "100001"},
                                      {"assist", "on"},
                                      {"all", "on"}}) {
        EXPECT_NE(assist_fault_set(faults, name, value), "") << name << " " << value;
    }
    EXPECT_EQ(assist_fault_set(faults, "all", "off"), "");
    EXPECT_TRUE(assist_fault_active(faults).empty());
}
