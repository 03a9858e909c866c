#include "client/grid.h"

#include <algorithm>

Grid grid_make(int width, int height) {
    Grid grid;
    grid.width = std::clamp(width, 1, kGridMax);
    grid.height = std::clamp(height, 1, kGridMax);
    grid.rows.assign(static_cast<size_t>(grid.height), std::string(static_cast<size_t>(grid.width), ' '));
    grid.reversed.assign(static_cast<size_t>(grid.height), false);
    return grid;
}

void grid_text(Grid& grid, int row, int column, std::string_view text) {
    if (row < 0 || row >= grid.height) {
        return;
    }
    std::string& line = grid.rows[static_cast<size_t>(row)];
    for (const char c : text) {
        if (column >= 0 && column < grid.width) {
            line[static_cast<size_t>(column)] = c >= ' ' && c <= '~' ? c : '?';
        }
        ++column;
    }
}

std::string grid_print(const Grid& grid) {
    std::string text;
    for (const std::string& row : grid.rows) {
        text += row.substr(0, row.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}
