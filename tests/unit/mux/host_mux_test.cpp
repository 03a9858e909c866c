// Opening, closing and dispatch by bus type.
#include "host_mux_fixture.h"
#include "interpose/fail.h"
#include "interpose/local.h"
#include "mux/host_mux_i2c.h"
#include "support/wait.h"

#include <cerrno>

namespace {

struct HostMuxOpen : testing::Test {
    void SetUp() override {
        mux_slave_attach(&slave);
        snprintf(config.path, sizeof config.path, "/dev/spidev1.0");
    }

    void TearDown() override {
        EXPECT_EQ(host_mux_deinit(&handle), 0);
    }

    int32_t init() {
        int32_t result = 0;
        lines = lines_of(capture_stdout([&] { result = host_mux_init(&handle, &config); }));
        return result;
    }

    const TestLimit limit;
    MuxSlave slave;
    host_mux_spi_port_config config{};
    host_mux_handle handle{HOST_MUX_BUS_SPI, kHostMuxClosed};
    Lines lines;
};

} // namespace

TEST_F(HostMuxOpen, OpensAndCloses) {
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(lines.empty());
    EXPECT_NE(handle.id, kHostMuxClosed);
    EXPECT_NE(g_host_mux_spi_master_mutex, nullptr);
    EXPECT_NE(g_host_mux_spi_master_wait_send_done_xSemaphore, nullptr);
    EXPECT_NE(g_host_mux_spi_master_wait_receive_done_xSemaphore, nullptr);
    EXPECT_EQ(host_mux_deinit(&handle), 0);
    EXPECT_EQ(handle.id, kHostMuxClosed);
    EXPECT_EQ(g_host_mux_spi_master_mutex, nullptr);
    EXPECT_EQ(g_host_mux_spi_master_wait_send_done_xSemaphore, nullptr);
    EXPECT_EQ(g_host_mux_spi_master_wait_receive_done_xSemaphore, nullptr);
}

TEST_F(HostMuxOpen, DeviceThatCanNotBeOpenedFailsTheInit) {
    snprintf(config.path, sizeof config.path, "/dev/spidev9.9");
    EXPECT_EQ(init(), -1);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "host_mux_init, init fail");
    EXPECT_EQ(handle.id, kHostMuxClosed);
    snprintf(config.path, sizeof config.path, "/dev/spidev1.0");
    EXPECT_EQ(init(), 0);
}

TEST_F(HostMuxOpen, MissingLockOrSemaphoreFailsTheInitAndComesWithTheNext) {
    const struct {
        const char* function;
        int nth;
        std::string name;
    } rows[] = {{"pthread_mutex_init", 1, "mutex"},
                {"sem_init", 1, "wait_send_done_xSemaphore"},
                {"sem_init", 2, "wait_receive_done_xSemaphore"}};
    for (const auto& row : rows) {
        interpose_fail(row.function, row.nth, ENOSPC);
        EXPECT_EQ(init(), -1);
        EXPECT_EQ(lines, Lines({"g_host_mux_spi_master_" + row.name + " create error\r",
                                "host_mux_init, init fail"}));
    }
    const port_platform_semaphore kept = g_host_mux_spi_master_wait_send_done_xSemaphore;
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(g_host_mux_spi_master_wait_send_done_xSemaphore, kept);
}

TEST_F(HostMuxOpen, FailedCloseKeepsTheBusOpen) {
    ASSERT_EQ(init(), 0);
    const uint32_t id = handle.id;
    handle.id = 0x7FFFFFFF; // no descriptor of this process
    std::string text;
    int32_t result = 0;
    text = capture_stdout([&] { result = host_mux_deinit(&handle); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(text, "portable_HAL_SPI_MASTER_DEINIT: bus de-init err\r\n");
    EXPECT_EQ(handle.id, 0x7FFFFFFFU);
    EXPECT_NE(g_host_mux_spi_master_mutex, nullptr);
    handle.id = id;
}

TEST_F(HostMuxOpen, TransfersNeedAnOpenBus) {
    uint8_t byte = 0;
    uint32_t length = 1;
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(host_mux_rx(&handle, &byte, &length), 1); }),
              "host_mux_rx, mux not open\n");
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(host_mux_tx(&handle, &byte, &length), 1); }),
              "host_mux_tx, mux not open\n");
    EXPECT_EQ(slave.transfers, 0U);
}

TEST_F(HostMuxOpen, TransferDoesNotWaitWhileTheBusIsBeingOpened) {
    std::atomic<bool> refused{false};
    std::thread transfer;
    LocalDevices devices;
    devices.open = [&](const std::string&, int) {
        transfer = std::thread([&] {
            uint8_t byte = 0;
            uint32_t length = 1;
            refused = host_mux_rx(&handle, &byte, &length) == 1;
        });
        EXPECT_TRUE(wait_until([&] { return refused.load(); }, std::chrono::seconds(10)));
        return 0;
    };
    devices.ioctl = [](const std::string&, unsigned long, void*) { return 0; };
    local_devices(devices);
    EXPECT_EQ(init(), 0);
    transfer.join();
    EXPECT_EQ(lines, Lines({"host_mux_rx, mux not open"}));
}

TEST_F(HostMuxOpen, UnknownBusTypeIsRefused) {
    handle.bus_type = 7;
    EXPECT_EQ(init(), -1);
    EXPECT_TRUE(lines.empty());
    handle.id = 3;
    g_host_mux_i2c_master_mutex = port_platform_create_mutex(); // the other bus would work
    uint8_t byte = 0;
    uint32_t length = 1;
    EXPECT_EQ(capture_stdout([&] {
                  EXPECT_EQ(host_mux_rx(&handle, &byte, &length), 1);
                  EXPECT_EQ(host_mux_tx(&handle, &byte, &length), 1);
                  EXPECT_EQ(host_mux_deinit(&handle), -1);
              }),
              "");
    port_platform_destroy_mutex(&g_host_mux_i2c_master_mutex);
    handle.id = kHostMuxClosed;
}

TEST_F(HostMuxOpen, ClosingWhatIsNotOpenSucceeds) {
    EXPECT_EQ(host_mux_deinit(&handle), 0);
}

TEST_F(HostMuxOpen, DoneSemaphoresArePostedAndTakenUnlessTheBusIsClosed) {
    const auto wait_for_both = [] {
        portable_HOST_MUX_SPI_MASTER_wait_for_send_done();
        portable_HOST_MUX_SPI_MASTER_wait_for_receive_done();
    };
    EXPECT_EQ(capture_stdout(wait_for_both), "");
    ASSERT_EQ(init(), 0);
    for (int i = 0; i < 2; ++i) { // created with one
        EXPECT_EQ(capture_stdout(wait_for_both),
                  "portable_HOST_MUX_SPI_MASTER_wait_for_send_done: error!!!\n"
                  "portable_HOST_MUX_SPI_MASTER_wait_for_receive_done: error!!!\n");
        portable_HOST_MUX_SPI_MASTER_send_done();
        portable_HOST_MUX_SPI_MASTER_receive_done();
    }
}
