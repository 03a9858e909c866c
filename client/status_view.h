// The state as text and as JSON: pure. All results are ASCII without control characters but line ends.
#ifndef TAVOR_CLIENT_STATUS_VIEW_H
#define TAVOR_CLIENT_STATUS_VIEW_H

#include "client/status.h"

#include <string>

// Labelled lines; what is not known says why.
std::string status_view_text(const Status& status);

// One line of JSON, type "status"; what is not known is null, and "unknown" tells why by the key.
std::string status_view_json(const Status& status);

#endif
