// What a check of the device or of files has found, line by line.
#ifndef TAVOR_CLIENT_FINDING_H
#define TAVOR_CLIENT_FINDING_H

#include <string>
#include <vector>

// kSkipped: could not be checked here, which is neither good nor doubtful.
enum class Grade { kGood, kSkipped, kDoubtful, kBad };

struct Finding {
    Grade grade;
    std::string subject; // a word or two: "settings", "power line"
    std::string text;    // what was found
    std::string remedy = {};
};

// One line for people and one of JSON, type "check", with their line ends. Whatever the texts hold, the
// results are printable ASCII.
std::string finding_line(const Finding& finding);
std::string finding_json(const Finding& finding);

// The worst grade among them; kGood for none.
Grade finding_worst(const std::vector<Finding>& findings);

// How many there are of each grade that occurs: "12 good, 1 doubtful".
std::string finding_summary(const std::vector<Finding>& findings);

#endif
