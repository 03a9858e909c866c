// A program as it would run on the device: opens nodes, fixed paths and queues, and prints what it got.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <map>
#include <pthread.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/msg.h>
#include <sys/sendfile.h>
#include <unistd.h>

namespace {

constexpr char kSpi[] = "/dev/spidev1.0";
constexpr key_t kQueue = 1234;
constexpr unsigned long kUnknownRequest = 0x40046BFF;

void say(const char* what, long long value) {
    printf("%s %lld\n", what, value);
    fflush(stdout);
}

int open_spi() {
    const int fd = open(kSpi, O_RDWR);
    const uint32_t mode = SPI_MODE_3;
    const uint32_t speed = 12000000;
    const uint8_t bits = 8;
    ioctl(fd, SPI_IOC_WR_MODE32, &mode);
    ioctl(fd, SPI_IOC_WR_BITS_PER_WORD, &bits);
    ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed);
    return fd;
}

int transfer(int fd, uint8_t* bytes, uint32_t length) {
    spi_ioc_transfer part = {};
    part.tx_buf = reinterpret_cast<uintptr_t>(bytes);
    part.rx_buf = reinterpret_cast<uintptr_t>(bytes);
    part.len = length;
    return ioctl(fd, SPI_IOC_MESSAGE(1), &part);
}

int probe_spi() {
    const int fd = open_spi();
    uint32_t mode = 0;
    uint32_t speed = 0;
    uint8_t bits = 0;
    uint8_t bytes[4] = {};
    ioctl(fd, SPI_IOC_RD_MODE32, &mode);
    ioctl(fd, SPI_IOC_RD_BITS_PER_WORD, &bits);
    ioctl(fd, SPI_IOC_RD_MAX_SPEED_HZ, &speed);
    say("mode", mode);
    say("bits", bits);
    say("speed", speed);
    say("transfer", transfer(fd, bytes, sizeof bytes));
    say("first", bytes[0]);
    const uint8_t wrong = 9;
    say("refused", ioctl(fd, SPI_IOC_WR_BITS_PER_WORD, &wrong) == -1 ? errno : 0);
    say("unknown", ioctl(fd, kUnknownRequest, bytes) == -1 ? errno : 0);
    return close(fd);
}

void write_text(const char* path, const char* text) {
    const int fd = open(path, O_WRONLY);
    say(path, write(fd, text, strlen(text)));
    close(fd);
}

int probe_gpio() {
    char direction[16] = "";
    say("before", access("/sys/class/gpio/gpio17", F_OK));
    write_text("/sys/class/gpio/export", "17");
    say("after", access("/sys/class/gpio/gpio17", F_OK));
    write_text("/sys/class/gpio/gpio17/direction", "out");
    write_text("/sys/class/gpio/gpio17/value", "1");
    const int fd = open("/sys/class/gpio/gpio17/direction", O_RDWR);
    say("read", read(fd, direction, sizeof direction - 1));
    printf("direction %s", direction);
    int ends[2] = {-1, -1};
    say("pipe", pipe(ends));
    say("sent by the kernel", sendfile(ends[1], fd, nullptr, sizeof direction));
    return close(fd);
}

int probe_files() {
    char line[256] = "";
    FILE* file = fopen("/etc/default/tavor/tavor.conf", "r");
    while (file != nullptr && fgets(line, sizeof line, file) != nullptr) {
        fputs(line, stdout);
    }
    FILE* header = fopen("/tmp/head.out", "w");
    if (file == nullptr || header == nullptr) {
        return 1;
    }
    fputs("header", header);
    fclose(header);
    return fclose(file);
}

// Leaves its queue behind, as a program does that is killed.
int probe_queue() {
    say("queue", msgget(kQueue, IPC_CREAT | 0600));
    return 0;
}

int probe_wait() {
    const int fd = open_spi();
    uint8_t bytes[4] = {};
    transfer(fd, bytes, sizeof bytes);
    probe_queue();
    say("waiting", getpid());
    pause();
    return 0;
}

int probe_stubborn() {
    signal(SIGTERM, SIG_IGN);
    return probe_wait();
}

struct Talker {
    int fd;
    std::atomic<long> transfers;
};

void* talk(void* argument) {
    auto* talker = static_cast<Talker*>(argument);
    for (uint8_t bytes[64] = {};;) {
        transfer(talker->fd, bytes, sizeof bytes);
        ++talker->transfers;
        pthread_testcancel();
    }
}

// A thread is cancelled in the middle of its transfers; the node must answer as before.
int probe_cancel() {
    constexpr int kRounds = 50;
    Talker talker = {open_spi(), 0};
    uint8_t bytes[64] = {};
    for (int round = 0; round < kRounds; ++round) {
        const long before = talker.transfers;
        pthread_t thread = {};
        pthread_create(&thread, nullptr, talk, &talker);
        while (talker.transfers == before) {
        }
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
        if (transfer(talker.fd, bytes, sizeof bytes) != static_cast<int>(sizeof bytes)) {
            return 1;
        }
    }
    say("cancelled", kRounds);
    return close(talker.fd);
}

int probe_missing() {
    say("open", open(kSpi, O_RDWR));
    say("error", errno);
    return 0;
}

std::atomic<bool> timer_fired = false;

void on_timer(sigval) {
    timer_fired = true;
}

// An hour on a timer, and another one asleep.
int probe_hours() {
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_notify_function = on_timer;
    timer_t timer = nullptr;
    const itimerspec hour = {{0, 0}, {3600, 0}};
    const time_t begin = time(nullptr);
    say("begin", begin);
    timer_create(CLOCK_REALTIME, &event, &timer);
    timer_settime(timer, 0, &hour, nullptr);
    while (!timer_fired) {
        usleep(1000000);
    }
    say("timer", time(nullptr) - begin >= 3600 ? 1 : 0);
    sleep(3600);
    say("sleep", time(nullptr) - begin >= 7200 ? 1 : 0);
    return 0;
}

// A fault that a sanitizer finds, when this program was built with one.
int probe_overrun() {
    constexpr size_t kRoom = 4;
    const volatile size_t more_than_room = kRoom + 1;
    void* bytes = malloc(kRoom);
    const int fd = open("/dev/zero", O_RDONLY);
    say("read", read(fd, bytes, more_than_room));
    free(bytes);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::map<std::string, int (*)()> probes = {
        {"spi", probe_spi},         {"gpio", probe_gpio},       {"files", probe_files},
        {"queue", probe_queue},     {"wait", probe_wait},       {"cancel", probe_cancel},
        {"missing", probe_missing}, {"overrun", probe_overrun}, {"stubborn", probe_stubborn},
        {"hours", probe_hours},
    };
    const auto probe = probes.find(argc > 1 ? argv[1] : "");
    if (probe == probes.end()) {
        return argc > 2 ? atoi(argv[2]) : 0; // "exit N"
    }
    return probe->second();
}
