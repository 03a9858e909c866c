// The satellites that the chip sees and uses: pure parsing, no I/O. Any sentence may be hostile; what is kept
// is bounded.
#ifndef TAVOR_CLIENT_SKY_H
#define TAVOR_CLIENT_SKY_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

// In the order in which they are shown. Satellites of augmentation systems are of kGps, as the chip sends
// them.
enum class SkySystem : uint8_t { kGps, kGlonass, kGalileo, kBeidou, kQzss, kNavic };

inline constexpr size_t kSkySystems = 6;

struct Satellite {
    SkySystem system = SkySystem::kGps;
    int number = 0;
    std::optional<int> elevation; // degrees above the horizon
    std::optional<int> azimuth;   // degrees from true north
    std::optional<int> signal;    // dB-Hz; none: not tracked
    bool used = false;            // in the fix
};

using SkyTime = std::chrono::steady_clock::time_point;

// What the sentences of one system and one signal have said.
struct SkyView {
    std::vector<Satellite> coming; // the sentences that have come of a group that is not whole
    std::vector<Satellite> whole;
    SkyTime told = {}; // when it was whole
};

struct Sky {
    std::map<std::pair<SkySystem, int>, SkyView> views;
    std::map<std::pair<SkySystem, int>, SkyTime> used; // when it was last
};

// Takes a sentence that came now; what is neither GSV nor GSA changes nothing.
void sky_take(Sky& sky, std::string_view sentence, SkyTime now);

// What was said within the last seconds, by system and number; the best signal of each.
std::vector<Satellite> sky_satellites(const Sky& sky, SkyTime now);

// "GPS", and 'G' as in the names of satellites.
const char* sky_name(SkySystem system);
char sky_letter(SkySystem system);

#endif
