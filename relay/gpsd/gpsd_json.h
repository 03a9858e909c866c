// JSON objects, written member by member straight into their text: a report has at most twenty members of
// five kinds, and a tree of values that is built for each costs five times as much processor time.
//
// An object begins as "{", and whoever writes it closes it. Names and texts are taken as they are: they hold
// nothing that JSON escapes.
#ifndef TAVOR_RELAY_GPSD_JSON_H
#define TAVOR_RELAY_GPSD_JSON_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// A member whose value is JSON already.
void gpsd_json_put(std::string& object, std::string_view name, std::string_view json);
void gpsd_json_text(std::string& object, std::string_view name, std::string_view text);
void gpsd_json_flag(std::string& object, std::string_view name, bool flag);
void gpsd_json_count(std::string& object, std::string_view name, int64_t count);

// A number below 1e15, rounded to so many steps of one; a whole one gets ".0". Left out when there is none.
void gpsd_json_number(std::string& object, std::string_view name, const std::optional<double>& value,
                      double steps);

#endif
