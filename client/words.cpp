#include "client/words.h"

#include <algorithm>
#include <numeric>
#include <tuple>
#include <utility>

namespace {

size_t common_beginning(std::string_view a, std::string_view b) {
    return static_cast<size_t>(std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
}

} // namespace

size_t words_distance(std::string_view from, std::string_view to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    std::vector<size_t> above; // the row before, and the one before that
    std::vector<size_t> second;
    for (size_t i = 1; i <= from.size(); ++i) {
        second = std::exchange(above, row);
        row[0] = i;
        for (size_t j = 1; j <= to.size(); ++j) {
            const size_t changed = above[j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
            row[j] = std::min({changed, above[j] + 1, row[j - 1] + 1});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
                row[j] = std::min(row[j], second[j - 2] + 1);
            }
        }
    }
    return row.back();
}

size_t words_nearest(std::string_view word, const std::vector<std::string_view>& names) {
    const auto rank = [&](std::string_view name) { // the lowest is the nearest
        return std::tuple(!name.starts_with(word), words_distance(word, name),
                          word.size() - common_beginning(word, name));
    };
    const auto nearer = [&](std::string_view a, std::string_view b) { return rank(a) < rank(b); };
    return static_cast<size_t>(std::min_element(names.begin(), names.end(), nearer) - names.begin());
}
