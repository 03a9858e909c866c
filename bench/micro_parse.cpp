// How fast the daemon's own work on a sentence is: framing, field splitting and the update of the position
// record.
#include "nmea/location_frame.h"
#include "nmea/location_nmea_fields.h"
#include "nmea/location_record.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr int kSeconds = 12; // of a receiver's output: about what one full receive buffer holds
constexpr size_t kReadSize = 4095;

std::string sentence(const std::string& body) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(body.data());
    const unsigned sum = location_nmea_checksum(bytes, static_cast<int32_t>(body.size()));
    char tail[6];
    snprintf(tail, sizeof tail, "*%02X\r\n", sum);
    return "$" + body + tail;
}

// What a receiver of four systems says in one second.
std::vector<std::string> second_of_output(int second) {
    char body[128];
    std::vector<std::string> sentences;
    const auto add = [&](const char* rest) { sentences.push_back(sentence(body + std::string(rest))); };
    snprintf(body, sizeof body, "GNGGA,1235%02d.000,48%02d.0384,N,01131.%04d,E,1,12,0.8,545.4,M,46.9,M,,",
             second, second, second * 7);
    add("");
    snprintf(body, sizeof body, "GNRMC,1235%02d.000,A,48%02d.0384,N,01131.%04d,E", second, second,
             second * 7);
    add(",022.4,084.4,230394,,,A,V");
    body[0] = '\0';
    add("GNGSA,A,3,02,05,12,15,20,21,25,29,,,,,1.41,0.80,1.16,1");
    for (const char* talker : {"GP", "GL", "GA", "GB"}) {
        for (int part = 1; part <= 3; ++part) {
            snprintf(body, sizeof body, "%sGSV,3,%d,12,%02d,65,%03d,41", talker, part, part * 4, second * 3);
            add(",02,25,123,38,03,11,294,30,04,72,012,44,1");
        }
    }
    snprintf(body, sizeof body, "GNGST,1235%02d.000,4.0,8.7,4.7,132.3,6.8,7.2,9.1", second);
    add("");
    body[0] = '\0';
    add("GNEPE,1.52,2.25");
    return sentences;
}

std::vector<std::string> all_sentences() {
    std::vector<std::string> all;
    for (int second = 0; second < kSeconds; ++second) {
        for (std::string& one : second_of_output(second)) {
            all.push_back(std::move(one));
        }
    }
    return all;
}

void report(benchmark::State& state, size_t bytes, size_t sentences) {
    const auto iterations = static_cast<int64_t>(state.iterations());
    state.SetBytesProcessed(iterations * static_cast<int64_t>(bytes));
    state.SetItemsProcessed(iterations * static_cast<int64_t>(sentences));
}

size_t total_size(const std::vector<std::string>& sentences) {
    size_t size = 0;
    for (const std::string& one : sentences) {
        size += one.size();
    }
    return size;
}

// The calls of the receive thread for a stream that comes in reads of kReadSize bytes.
size_t frames_in(const std::string& stream) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(stream.data());
    size_t frames = 0;
    size_t head = 0;
    for (size_t end = 0; end < stream.size();) {
        end = std::min(stream.size(), end + kReadSize);
        uint32_t type = FRAME_NONE;
        while (const uint32_t used =
                   location_io_frame_parse(bytes + head, static_cast<uint32_t>(end - head), &type)) {
            frames += type == FRAME_NMEA ? 1 : 0;
            head += used;
        }
    }
    return frames;
}

void frame_parser(benchmark::State& state) {
    const std::vector<std::string> sentences = all_sentences();
    std::string stream;
    for (const std::string& one : sentences) {
        stream += one;
    }
    for (auto _ : state) {
        if (frames_in(stream) != sentences.size()) {
            state.SkipWithError("sentences were lost");
            break;
        }
    }
    report(state, stream.size(), sentences.size());
}
BENCHMARK(frame_parser);

void field_splitter(benchmark::State& state) {
    const std::vector<std::string> sentences = all_sentences();
    NmeaFields fields;
    for (auto _ : state) {
        for (const std::string& one : sentences) {
            location_nmea_split_fields(one.data(), static_cast<int32_t>(one.size()), &fields);
            benchmark::DoNotOptimize(fields);
        }
    }
    report(state, total_size(sentences), sentences.size());
}
BENCHMARK(field_splitter);

// The mix as it comes, most of which is none of the three sentences that the record takes.
void record_update(benchmark::State& state) {
    const std::vector<std::string> sentences = all_sentences();
    LocationRecord record = {};
    for (auto _ : state) {
        for (const std::string& one : sentences) {
            location_service_get_location_string(&record, one.c_str(), static_cast<uint32_t>(one.size()));
            benchmark::DoNotOptimize(record);
        }
    }
    report(state, total_size(sentences), sentences.size());
}
BENCHMARK(record_update);

void record_update_gga(benchmark::State& state) {
    const std::string gga = second_of_output(0)[0];
    LocationRecord record = {};
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            location_service_get_location_string(&record, gga.c_str(), static_cast<uint32_t>(gga.size())));
    }
    report(state, gga.size(), 1);
}
BENCHMARK(record_update_gga);

} // namespace
