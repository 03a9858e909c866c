#include "device/location_epoll.h"

#include "support/capture.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/epoll.h>
#include <unistd.h>

namespace {

struct EpollTest : testing::Test {
    void SetUp() override {
        epfd = epoll_create(10);
        ASSERT_EQ(pipe(ends), 0);
    }
    void TearDown() override {
        for (const int fd : {epfd, ends[0], ends[1]}) {
            close(fd);
        }
    }

    int epfd;
    int ends[2];
};

std::string number(int n) {
    return std::to_string(n);
}

} // namespace

TEST_F(EpollTest, DescriptorIsTheDataOfItsEventsUntilItIsRemoved) {
    ASSERT_EQ(location_epoll_add_fd(epfd, ends[0], EPOLLIN), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    epoll_event event{};
    ASSERT_EQ(epoll_wait(epfd, &event, 1, 0), 1);
    EXPECT_EQ(event.data.fd, ends[0]);
    EXPECT_EQ(event.events, static_cast<uint32_t>(EPOLLIN));
    EXPECT_EQ(location_epoll_remove_fd(epfd, ends[0]), 0);
    EXPECT_EQ(epoll_wait(epfd, &event, 1, 0), 0);
}

TEST_F(EpollTest, AddingTwiceIsReported) {
    ASSERT_EQ(location_epoll_add_fd(epfd, ends[0], EPOLLIN), 0);
    const std::string log =
        capture_stdout([&] { EXPECT_EQ(location_epoll_add_fd(epfd, ends[0], EPOLLIN), -1); });
    EXPECT_EQ(log, "[LOCSERV] ERR: location_epoll_add_fd failed, epfd=" + number(epfd) +
                       " fd=" + number(ends[0]) + " events=0x1 reason=[File exists]17\n");
}

TEST_F(EpollTest, RemovingWhatIsNotThereIsReported) {
    const std::string log = capture_stdout([&] { EXPECT_EQ(location_epoll_remove_fd(epfd, ends[0]), -1); });
    EXPECT_EQ(log, "[LOCSERV] ERR: location_epoll_remove_fd failed, epfd=" + number(epfd) +
                       " fd=" + number(ends[0]) + " reason=[No such file or directory]2\n");
}
