// GSA and GSV: DOPs, and the view of the sky.
#ifndef TAVOR_RELAY_GNSS_SKY_H
#define TAVOR_RELAY_GNSS_SKY_H

#include "gnss/gnss_epoch.h"
#include "sentence/sentence.h"

void gnss_sky_take_gsa(GnssReader& reader, const Sentence& sentence);
void gnss_sky_take_gsv(GnssReader& reader, const Sentence& sentence);

// Marks the satellites that GSA has named.
void gnss_sky_mark_used(GnssReader& reader);

// The number that gpsd gives the satellite among those of all systems.
int gnss_sky_prn(const GnssSatellite& satellite);

#endif
