#include "chip/chip_sky.h"

#include "chip/chip_sentence.h"

#include <algorithm>
#include <array>

namespace {

struct System {
    const char* talker;
    uint32_t id; // as GSA names it
    uint32_t used;
    std::vector<uint32_t> satellites;
};

constexpr size_t kGsaSlots = 12;
constexpr size_t kGsvSatellites = 4; // in one sentence
constexpr uint64_t kSecondsPerAzimuthDegree = 120;

const std::array<System, 5>& systems() {
    static const std::array<System, 5> list = {{
        {"GP", 1, 6, {2, 5, 7, 13, 15, 18, 20, 29}},
        {"GL", 2, 4, {65, 72, 73, 80, 81, 87}},
        {"GA", 3, 4, {3, 8, 13, 21, 26}},
        {"GB", 4, 4, {6, 9, 16, 22, 27, 30}},
        {"GI", 6, 2, {2, 4, 7}},
    }};
    return list;
}

std::string padded(uint32_t value, size_t width) {
    const std::string digits = std::to_string(value);
    return std::string(width - std::min(width, digits.size()), '0') + digits;
}

std::string two(uint32_t value) {
    return padded(value, 2);
}

uint32_t mix(uint32_t value) {
    value = (value ^ (value >> 16)) * 0x45d9f3bU;
    value = (value ^ (value >> 16)) * 0x45d9f3bU;
    return value ^ (value >> 16);
}

// ",id,elevation,azimuth,strength"
std::string in_view(const System& system, uint32_t satellite, uint64_t second, uint32_t seed) {
    const uint32_t place = mix(system.id * 256 + satellite);
    const uint32_t elevation = 8 + place % 78;
    const auto drift = static_cast<uint32_t>(second / kSecondsPerAzimuthDegree % 360);
    const uint32_t azimuth = (place / 128 + drift) % 360;
    const uint32_t noise = mix(place ^ seed ^ static_cast<uint32_t>(second)) % 4;
    const uint32_t strength = 26 + elevation / 5 + noise;
    return "," + two(satellite) + "," + two(elevation) + "," + padded(azimuth, 3) + "," + two(strength);
}

void gsv_of_system(const System& system, uint64_t second, uint32_t seed,
                   std::vector<std::string>& sentences) {
    const size_t count = system.satellites.size();
    const size_t messages = (count + kGsvSatellites - 1) / kGsvSatellites;
    for (size_t message = 0; message < messages; ++message) {
        std::string body = std::string(system.talker) + "GSV," + std::to_string(messages) + "," +
                           std::to_string(message + 1) + "," + two(static_cast<uint32_t>(count));
        const size_t first = message * kGsvSatellites;
        for (size_t i = first; i < std::min(first + kGsvSatellites, count); ++i) {
            body += in_view(system, system.satellites[i], second, seed);
        }
        sentences.push_back(chip_sentence(body + ",1"));
    }
}

} // namespace

uint32_t chip_sky_used() {
    uint32_t used = 0;
    for (const System& system : systems()) {
        used += system.used;
    }
    return used;
}

void chip_sky_gsa(bool fix, std::vector<std::string>& sentences) {
    for (const System& system : systems()) {
        std::string body = fix ? "GNGSA,A,3" : "GNGSA,A,1";
        for (size_t slot = 0; slot < kGsaSlots; ++slot) {
            body += ",";
            body += fix && slot < system.used ? two(system.satellites[slot]) : "";
        }
        body += fix ? ",1.21,0.72,0.97," : ",99.99,99.99,99.99,";
        sentences.push_back(chip_sentence(body + std::to_string(system.id)));
    }
}

void chip_sky_gsv(bool fix, uint64_t second, uint32_t seed, std::vector<std::string>& sentences) {
    for (const System& system : systems()) {
        if (fix) {
            gsv_of_system(system, second, seed, sentences);
        } else {
            sentences.push_back(chip_sentence(std::string(system.talker) + "GSV,1,1,00,1"));
        }
    }
}
