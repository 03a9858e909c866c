// What the sentences of one epoch say: pure parsing, no I/O. Every byte of them may be hostile; what is no
// good value is absent.
//
// An epoch is over when its last sentence has come. Which one that is follows from the epoch before; while it
// is not known, or when it does not come, the first sentence of the next epoch ends it.
#ifndef TAVOR_RELAY_GNSS_EPOCH_H
#define TAVOR_RELAY_GNSS_EPOCH_H

#include "sentence/utc.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Systems as the gnssid of u-blox and gpsd numbers them.
enum class GnssSystem { kGps = 0, kSbas = 1, kGalileo = 2, kBeidou = 3, kQzss = 5, kGlonass = 6, kNavic = 7 };

struct GnssSatellite {
    GnssSystem system = GnssSystem::kGps;
    int number = 0;                  // in its system
    std::optional<double> elevation; // degrees
    std::optional<double> azimuth;   // degrees
    std::optional<double> strength;  // dB-Hz
    bool used = false;
};

// Standard deviations, metres and degrees.
struct GnssErrors {
    std::optional<double> rms, major, minor, orientation, latitude, longitude, altitude;
};

// From 2D on there is a fix.
enum class GnssMode { kUnknown = 0, kNoFix = 1, k2d = 2, k3d = 3 };

struct GnssEpoch {
    GnssMode mode = GnssMode::kUnknown;
    std::optional<int> quality; // as GGA numbers it
    std::optional<Utc> time;
    std::optional<double> latitude, longitude;  // degrees, south and west negative
    std::optional<double> altitude, separation; // metres above the sea; of the geoid above the ellipsoid
    std::optional<double> speed, course;        // metres a second; degrees
    std::optional<double> pdop, hdop, vdop;     // the latest
    std::vector<GnssSatellite> satellites;      // the latest view of the sky, and which the latest GSA named
    // Of these came with the epoch, or after what ended the one before:
    std::optional<GnssErrors> errors; // GST
    bool has_view = false;            // the view
    bool has_sky = false;             // the view or the DOPs
};

// State of the reading; starts empty.
struct GnssReader {
    GnssEpoch epoch;
    std::string time;              // of the epoch, as the chip sent it
    std::vector<std::string> keys; // kinds of the sentences of the epoch, in order
    std::string last_key;          // of an epoch
    bool told = false;             // the epoch was reported already
    std::optional<Utc> dated;      // latest moment with a date
    std::optional<bool> valid;     // by RMC, or by GLL
    std::optional<int> gsa_mode;
    std::vector<GnssSatellite> used; // by GSA
    bool new_sky = false;            // a GSV of this epoch has come
    bool new_used = false;           // a GSA has
};

// Takes the text of a sentence, line end included or not. Gives `tell` each epoch that is over with it: none
// or one, or two when an epoch has one sentence.
void gnss_reader_take(GnssReader& reader, std::string_view text,
                      void (*tell)(void* to, const GnssEpoch& epoch), void* to);

// Reports nothing of what has come so far: all that stays is which sentence ends an epoch.
void gnss_reader_forget(GnssReader& reader);

#endif
