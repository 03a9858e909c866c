#include "client/words.h"

#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

size_t words_distance(std::string_view from, std::string_view to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= from.size(); ++i) {
        size_t before = std::exchange(row[0], i);
        for (size_t j = 1; j <= to.size(); ++j) {
            const size_t changed = before + (from[i - 1] == to[j - 1] ? 0 : 1);
            before = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}
