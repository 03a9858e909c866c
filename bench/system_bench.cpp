// The whole chain on the simulated board: sentences per second from chip to client, processor time and memory
// of the daemon, time from process start to the first answer; beside them the bare path (queue,
// then a 520-byte datagram).
#include "support/harness.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int kSentences = 100000;
constexpr int kStarts = 11;
constexpr size_t kSentenceSize = 72;

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// User and system time so far of the process or thread whose /proc directory this is, in seconds.
double processor_seconds(const std::filesystem::path& directory) {
    std::ifstream stat(directory / "stat");
    std::string text;
    std::getline(stat, text);
    unsigned long user = 0;
    unsigned long system = 0;
    sscanf(text.c_str() + text.rfind(')') + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
           &system);
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The two threads of the daemon that work per sentence, by their place in the order of their start.
struct ThreadSeconds {
    double service = 0; // queue to client, one log line each
    double receive = 0; // chip to queue; what the simulated bus costs is in here
};

ThreadSeconds thread_seconds(const std::filesystem::path& process) {
    std::vector<int> threads;
    for (const auto& entry : std::filesystem::directory_iterator(process / "task")) {
        threads.push_back(std::stoi(entry.path().filename()));
    }
    std::sort(threads.begin(), threads.end());
    if (threads.size() != 3) {
        return {};
    }
    const auto seconds = [&](size_t i) {
        return processor_seconds(process / "task" / std::to_string(threads[i]));
    };
    return {.service = seconds(1), .receive = seconds(2)};
}

double own_processor_seconds(int who) {
    rusage usage = {};
    getrusage(who, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

long resident_kib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

struct Record {
    long type;
    struct {
        uint32_t id;
        void* data;
        uint32_t length;
    } body;
};

// One process hands heap copies through a message queue to a thread that sends datagrams; another process
// reads them.
ThreadSeconds bare_path_seconds() {
    ThreadSeconds used;
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sockets) != 0) {
        return used;
    }
    const pid_t reader = fork();
    if (reader == 0) {
        tavor_response response;
        for (int i = 0; i < kSentences && recv(sockets[1], &response, sizeof response, 0) > 0; ++i) {
        }
        _exit(0);
    }
    const int queue = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    std::thread sender([&] {
        const double before = own_processor_seconds(RUSAGE_THREAD);
        for (int i = 0; i < kSentences; ++i) {
            Record record = {};
            tavor_response response = {};
            if (msgrcv(queue, &record, sizeof record.body, 0, 0) < 0) {
                return;
            }
            memcpy(response.payload, record.body.data, record.body.length);
            send(sockets[0], &response, sizeof response, 0);
            free(record.body.data);
        }
        used.service = own_processor_seconds(RUSAGE_THREAD) - before;
    });
    const double before = own_processor_seconds(RUSAGE_THREAD);
    const std::string sentence(kSentenceSize, 'x');
    for (int i = 0; i < kSentences; ++i) {
        Record record = {1, {11, malloc(kSentenceSize + 1), kSentenceSize}};
        memcpy(record.body.data, sentence.c_str(), kSentenceSize + 1);
        msgsnd(queue, &record, sizeof record.body, 0);
    }
    used.receive = own_processor_seconds(RUSAGE_THREAD) - before;
    sender.join();
    msgctl(queue, IPC_RMID, nullptr);
    waitpid(reader, nullptr, 0);
    close(sockets[0]);
    close(sockets[1]);
    return used;
}

void report_flow() {
    const SimulatedBoard board({"--full-speed", "--sentences", std::to_string(kSentences)});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    const pid_t pid = daemon.process->pid;

    client.send(TAVOR_REQUEST_START);
    const Clock::time_point start = Clock::now();
    int sentences = 0;
    while (sentences < kSentences) {
        const auto response = client.receive();
        if (!response) {
            printf("lost sentences: only %d of %d arrived\n", sentences, kSentences);
            return;
        }
        sentences += response->code == TAVOR_CODE_NMEA && response->payload[0] == '$' ? 1 : 0;
    }
    const double elapsed = seconds_since(start);
    const std::filesystem::path process = "/proc/" + std::to_string(pid);
    const double used = processor_seconds(process);
    const ThreadSeconds threads = thread_seconds(process);
    const ThreadSeconds path = bare_path_seconds();
    const double reference = path.service + path.receive;
    printf("sentences per second, chip to client       %10.0f\n", sentences / elapsed);
    printf("processor seconds per 100,000, daemon      %10.2f   service thread %.2f, receive thread with the "
           "simulated bus %.2f\n",
           used, threads.service, threads.receive);
    printf("processor seconds per 100,000, path alone  %10.2f   consumer %.2f, producer %.2f\n", reference,
           path.service, path.receive);
    printf("daemon to path alone                       %10.2f   service thread to consumer %.2f\n",
           used / reference, threads.service / path.service);
    printf("resident memory                            %10ld KiB\n", resident_kib(pid));
    printf("private memory                             %10ld KiB\n", daemon.private_kib());
}

// With the HTTP library in the process, which comes with the first download.
void report_assisted_memory() {
    const SimulatedBoard board({"--source", "none"});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    if (client.ask(TAVOR_REQUEST_ASSIST, TAVOR_CODE_ASSIST) != 0 ||
        !client.receive_code(TAVOR_CODE_ASSIST_RESULT)) {
        printf("no download ended\n");
        return;
    }
    printf("private memory, after a download           %10ld KiB\n", daemon.private_kib());
}

void report_first_answer() {
    const SimulatedBoard board;
    DaemonOnBoard daemon(board);
    std::vector<double> times;
    for (int i = 0; i < kStarts; ++i) {
        daemon.kill();
        const TestClient client(board.socket_path());
        const Clock::time_point start = Clock::now();
        std::thread answered([&] { // the daemon lives no longer than the thread that starts it
            tavor_request request = {};
            request.type = TAVOR_REQUEST_DEBUG_OFF;
            while (!client.send_bytes(&request, sizeof request) ||
                   !client.receive_code(TAVOR_CODE_DEBUG, std::chrono::milliseconds(100))) {
                std::this_thread::yield();
            }
            times.push_back(seconds_since(start));
        });
        daemon.restart();
        answered.join();
    }
    std::sort(times.begin(), times.end());
    printf("process start to first answer, median      %10.1f ms\n", times[times.size() / 2] * 1000);
}

} // namespace

int main() {
    report_flow();
    report_assisted_memory();
    report_first_answer();
    return 0;
}
