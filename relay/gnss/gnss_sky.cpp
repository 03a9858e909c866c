#include "gnss/gnss_sky.h"

#include <algorithm>

namespace {

constexpr size_t kSatellitesMax =
    90; // of a view: their report fits the 10 KiB that readers of gpsd's protocol take
constexpr size_t kGsaMode = 2, kGsaFirst = 3, kGsaEnd = 15, kGsaPdop = 15, kGsaHdop = 16, kGsaVdop = 17,
                 kGsaSystem = 18;
constexpr size_t kGsvFirst = 4, kGsvEnd = 20, kGsvStep = 4;

// Numbers in NMEA that tell the system, whoever says them; those below 100 only where neither talker nor GSA
// tells another system than GPS or GLONASS.
struct NumberRow {
    int first, last;
    GnssSystem system;
    int offset; // to the number in its system
};
constexpr int kOwnMax = 32;      // numbers of GPS or GLONASS itself
constexpr int kOwnOtherMax = 99; // of any other
constexpr int kSbasOffset = 87, kGlonassOffset = 64;
constexpr NumberRow kNumbers[] = {
    {33, 64, GnssSystem::kSbas, kSbasOffset}, {65, 96, GnssSystem::kGlonass, -kGlonassOffset},
    {120, 158, GnssSystem::kSbas, 0},         {193, 200, GnssSystem::kQzss, -192},
    {201, 263, GnssSystem::kBeidou, -200},    {301, 336, GnssSystem::kGalileo, -300},
    {401, 463, GnssSystem::kBeidou, -400},
};

constexpr int kGalileoPrn = 300, kBeidouPrn = 400, kQzssPrn = 192, kNavicPrn = 900;

// System of a talker; GN: GPS. None for a talker that is not known: its satellites would be taken for
// others'.
std::optional<GnssSystem> system_of_talker(std::string_view talker) {
    if (talker == "GA") {
        return GnssSystem::kGalileo;
    }
    if (talker == "GB") {
        return GnssSystem::kBeidou;
    }
    if (talker == "GI") {
        return GnssSystem::kNavic;
    }
    if (talker == "GL") {
        return GnssSystem::kGlonass;
    }
    const bool is_gps = talker == "GP" || talker == "GN";
    return is_gps ? std::optional(GnssSystem::kGps) : std::nullopt;
}

// System of the number that ends a GSA.
GnssSystem system_of_number(int number, GnssSystem otherwise) {
    switch (number) {
    case 2:
        return GnssSystem::kGlonass;
    case 3:
        return GnssSystem::kGalileo;
    case 4:
        return GnssSystem::kBeidou;
    case 5:
        return GnssSystem::kQzss;
    case 6:
        return GnssSystem::kNavic;
    default:
        return otherwise;
    }
}

// The satellite with this number of a system, or of the one that the number tells; none when it is of none.
std::optional<GnssSatellite> satellite_of(GnssSystem system, int number) {
    const bool shared = system == GnssSystem::kGps || system == GnssSystem::kGlonass;
    GnssSatellite satellite;
    satellite.system = system;
    satellite.number = number;
    if (number <= (shared ? kOwnMax : kOwnOtherMax)) {
        return number > 0 ? std::optional(satellite) : std::nullopt;
    }
    for (const NumberRow& row : kNumbers) {
        if (number >= row.first && number <= row.last) {
            satellite.system = row.system;
            satellite.number = number + row.offset;
            return satellite;
        }
    }
    return std::nullopt;
}

bool same(const GnssSatellite& a, const GnssSatellite& b) {
    return a.system == b.system && a.number == b.number;
}

// A satellite that comes again, on another signal, keeps the stronger one.
void add(std::vector<GnssSatellite>& view, const GnssSatellite& satellite) {
    const auto found =
        std::find_if(view.begin(), view.end(), [&](const auto& one) { return same(one, satellite); });
    if (found == view.end()) {
        if (view.size() < kSatellitesMax) {
            view.push_back(satellite);
        }
    } else if (satellite.strength.value_or(0) > found->strength.value_or(0)) {
        *found = satellite;
    }
}

} // namespace

void gnss_sky_take_gsa(GnssReader& reader, const Sentence& sentence) {
    const auto of_talker = system_of_talker(sentence.talker);
    if (!of_talker) {
        return;
    }
    const GnssSystem system =
        system_of_number(sentence_count(sentence.fields[kGsaSystem]).value_or(0), *of_talker);
    if (!reader.new_used) {
        reader.used.clear();
        reader.new_used = true;
    }
    for (size_t i = kGsaFirst; i < kGsaEnd; ++i) {
        const auto satellite = satellite_of(system, sentence_count(sentence.fields[i]).value_or(0));
        if (satellite && reader.used.size() < kSatellitesMax) {
            reader.used.push_back(*satellite);
        }
    }
    // A system without a fix may tell DOPs of its own, or none: those of the best mode count.
    const int mode = sentence_count(sentence.fields[kGsaMode]).value_or(0);
    if (mode >= reader.gsa_mode.value_or(0)) {
        reader.gsa_mode = mode > 0 ? std::optional(mode) : std::nullopt;
        reader.epoch.pdop = sentence_number(sentence.fields[kGsaPdop]);
        reader.epoch.hdop = sentence_number(sentence.fields[kGsaHdop]);
        reader.epoch.vdop = sentence_number(sentence.fields[kGsaVdop]);
    }
    reader.epoch.has_sky = true;
}

void gnss_sky_take_gsv(GnssReader& reader, const Sentence& sentence) {
    const auto system = system_of_talker(sentence.talker);
    if (!system) {
        return;
    }
    std::vector<GnssSatellite>& view = reader.epoch.satellites;
    if (!reader.new_sky) {
        view.clear();
        reader.new_sky = true;
    }
    reader.epoch.has_view = true;
    reader.epoch.has_sky = true;
    // What is left after the last satellite is the number of the signal.
    const size_t end = std::min(kGsvEnd, sentence.count);
    for (size_t i = kGsvFirst; i + kGsvStep <= end; i += kGsvStep) {
        auto satellite = satellite_of(*system, sentence_count(sentence.fields[i]).value_or(0));
        if (satellite) {
            satellite->elevation = sentence_signed(sentence.fields[i + 1]);
            satellite->azimuth = sentence_number(sentence.fields[i + 2]);
            satellite->strength = sentence_number(sentence.fields[i + 3]);
            add(view, *satellite);
        }
    }
}

void gnss_sky_mark_used(GnssReader& reader) {
    for (GnssSatellite& satellite : reader.epoch.satellites) {
        satellite.used = std::any_of(reader.used.begin(), reader.used.end(),
                                     [&](const GnssSatellite& one) { return same(one, satellite); });
    }
}

int gnss_sky_prn(const GnssSatellite& satellite) {
    switch (satellite.system) {
    case GnssSystem::kSbas:
        return satellite.number - kSbasOffset;
    case GnssSystem::kGlonass:
        return satellite.number + kGlonassOffset;
    case GnssSystem::kGalileo:
        return satellite.number + kGalileoPrn;
    case GnssSystem::kBeidou:
        return satellite.number + kBeidouPrn;
    case GnssSystem::kQzss:
        return satellite.number + kQzssPrn;
    case GnssSystem::kNavic:
        return satellite.number + kNavicPrn;
    default:
        return satellite.number;
    }
}
