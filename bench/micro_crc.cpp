// CRC-32 of the firmware download, beside zlib's where it is installed.
#include "download/crc32_calc.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <vector>
#ifdef TAVOR_HAVE_ZLIB
#include <zlib.h>
#endif

namespace {

constexpr int64_t kFrameSize = 1024; // one step of an image's check
constexpr int64_t kImageSize = int64_t{1} << 20;

std::vector<uint8_t> some_bytes(int64_t n) {
    std::vector<uint8_t> bytes(static_cast<size_t>(n));
    uint32_t value = 1;
    for (uint8_t& byte : bytes) {
        value = value * 1664525U + 1013904223U;
        byte = static_cast<uint8_t>(value >> 24U);
    }
    return bytes;
}

void own_crc(benchmark::State& state) {
    const std::vector<uint8_t> bytes = some_bytes(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(crc32_calc(bytes.data(), static_cast<uint32_t>(bytes.size())));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(own_crc)->Arg(kFrameSize)->Arg(kImageSize);

#ifdef TAVOR_HAVE_ZLIB
void zlib_crc(benchmark::State& state) {
    const std::vector<uint8_t> bytes = some_bytes(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(crc32(0, bytes.data(), static_cast<uInt>(bytes.size())));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(zlib_crc)->Arg(kFrameSize)->Arg(kImageSize);
#endif

} // namespace
