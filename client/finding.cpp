#include "client/finding.h"

#include "client/print.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

constexpr std::array<const char*, 4> kGradeNames = {"good", "skipped", "doubtful", "bad"};

const char* grade_name(Grade grade) {
    return kGradeNames.at(static_cast<size_t>(grade));
}

} // namespace

std::string finding_line(const Finding& finding) {
    constexpr size_t kGradeWidth = 10;
    std::string line = grade_name(finding.grade);
    line.resize(kGradeWidth, ' ');
    const std::string remedy = finding.remedy.empty() ? "" : "; " + finding.remedy;
    return line + print_safe(finding.subject + ": " + finding.text + remedy) + "\n";
}

std::string finding_json(const Finding& finding) {
    Json object;
    object["type"] = "check";
    object["subject"] = finding.subject;
    object["grade"] = grade_name(finding.grade);
    object["text"] = finding.text;
    object["remedy"] = finding.remedy.empty() ? Json(nullptr) : Json(finding.remedy);
    return object.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

Grade finding_worst(const std::vector<Finding>& findings) {
    Grade worst = Grade::kGood;
    for (const Finding& finding : findings) {
        worst = std::max(worst, finding.grade);
    }
    return worst;
}

std::string finding_summary(const std::vector<Finding>& findings) {
    std::string text;
    for (const Grade grade : {Grade::kGood, Grade::kDoubtful, Grade::kBad, Grade::kSkipped}) {
        const auto count = std::count_if(findings.begin(), findings.end(),
                                         [&](const Finding& finding) { return finding.grade == grade; });
        if (count > 0) {
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + grade_name(grade);
        }
    }
    return text;
}
