#include "server/nearest.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace {

// Letters more, less or others.
size_t distance(const std::string& from, const std::string& to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= from.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i);
        for (size_t j = 1; j <= to.size(); ++j) {
            const size_t changed = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
            diagonal = std::exchange(row[j], std::min({changed, row[j] + 1, row[j - 1] + 1}));
        }
    }
    return row.back();
}

} // namespace

std::string nearest_name(const std::string& word, const std::vector<std::string>& names) {
    return *std::min_element(names.begin(), names.end(), [&](const std::string& a, const std::string& b) {
        return distance(word, a) < distance(word, b);
    });
}
