// What the relay knows of itself and of the daemon, in Prometheus's text format.
#ifndef TAVOR_RELAY_METRICS_REPORT_H
#define TAVOR_RELAY_METRICS_REPORT_H

#include <string>

// Call after gnss_open. `daemon`: the path of its socket, which the report names.
void metrics_report_open(const std::string& daemon);
void metrics_report_close();

// The exposition: each metric with its help and type. What is not known is NaN, so that a series never
// vanishes.
std::string metrics_report();

#endif
