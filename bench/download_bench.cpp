// A firmware download on the simulated board: its time against the sum of the waits that the daemon asks for,
// which are those of the protocol. The rest is what the daemon and the board need.
#include "sleep_sum.h"
#include "support/harness.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr size_t kFirstImage = 600001; // bytes
constexpr size_t kSecondImage = 65536;
constexpr char kImageList[] = "- rom:\n"
                              "    file: first.bin\n"
                              "    name: first\n"
                              "    begin_address: 0x08000000\n"
                              "- rom:\n"
                              "    file: second.bin\n"
                              "    name: second\n"
                              "    begin_address: 0x08100000\n";

// Mapped for the rest of the process.
SleepSum* make_sum(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
    if (fd < 0 || ftruncate(fd, sizeof(SleepSum)) != 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(SleepSum), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return memory == MAP_FAILED ? nullptr : static_cast<SleepSum*>(memory);
}

void write_files(const SimulatedBoard& board) {
    board.directory.write("etc/default/tavor/da/qx7710_da.bin", std::string(32768, 'a'));
    board.directory.write("etc/default/tavor/load/flash_download.cfg", kImageList);
    board.directory.write("etc/default/tavor/load/first.bin", std::string(kFirstImage, 'b'));
    board.directory.write("etc/default/tavor/load/second.bin", std::string(kSecondImage, 'c'));
}

int report(const SimulatedBoard& board, const SleepSum& sum) {
    const TestClient client(board.socket_path());
    const uint64_t slept_before = sum.requested_ns;
    const uint64_t overslept_before = sum.slept_ns - sum.requested_ns;
    const uint64_t calls_before = sum.calls;
    const long long transfers_before = board.status("transfers");
    const auto start = std::chrono::steady_clock::now();
    const int64_t result =
        client.ask(TAVOR_REQUEST_DOWNLOAD, TAVOR_CODE_DOWNLOAD, "", std::chrono::minutes(10));
    const double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double waits = static_cast<double>(sum.requested_ns - slept_before) / 1e9;
    const double overslept = static_cast<double>(sum.slept_ns - sum.requested_ns - overslept_before) / 1e9;
    printf("result of the download                     %10lld\n", static_cast<long long>(result));
    printf("bytes of the images                        %10zu\n", kFirstImage + kSecondImage);
    printf("time                                       %10.3f s\n", total);
    printf("waits of the protocol                      %10.3f s in %llu\n", waits,
           static_cast<unsigned long long>(sum.calls - calls_before));
    printf("SPI frames                                 %10lld\n",
           board.status("transfers") - transfers_before);
    printf("rest                                       %10.3f s, %.2f %% of the waits\n", total - waits,
           100 * (total - waits) / waits);
    printf("  of it late ends of the waits             %10.3f s\n", overslept);
    printf("  of it work of daemon and board           %10.3f s\n", total - waits - overslept);
    return result == 0 ? 0 : 1;
}

} // namespace

int main() {
    const SimulatedBoard board;
    write_files(board);
    const std::string path = board.directory.path / "sleeps";
    const SleepSum* sum = make_sum(path);
    if (sum == nullptr) {
        fprintf(stderr, "download_bench: can't map %s\n", path.c_str());
        return 1;
    }
    setenv("LD_PRELOAD", TAVOR_SLEEP_SUM_LIBRARY, 1);
    setenv(kSleepSumVariable, path.c_str(), 1);
    const DaemonOnBoard daemon(board);
    unsetenv("LD_PRELOAD");
    return report(board, *sum);
}
