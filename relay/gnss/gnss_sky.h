// GSA and GSV: DOPs, and the view of the sky.
#ifndef TAVOR_RELAY_GNSS_SKY_H
#define TAVOR_RELAY_GNSS_SKY_H

#include "gnss/gnss_epoch.h"
#include "gnss/gnss_fields.h"

void gnss_sky_take_gsa(GnssReader& reader, const GnssFields& fields);
void gnss_sky_take_gsv(GnssReader& reader, const GnssFields& fields);

// Marks the satellites that GSA has named.
void gnss_sky_mark_used(GnssReader& reader);

// The number that gpsd gives the satellite among those of all systems.
int gnss_sky_prn(const GnssSatellite& satellite);

#endif
