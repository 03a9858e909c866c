// A plain field of characters to draw into: pure. All text in it is printable ASCII.
#ifndef TAVOR_CLIENT_GRID_H
#define TAVOR_CLIENT_GRID_H

#include <string>
#include <string_view>
#include <vector>

struct Grid {
    int width = 0;
    int height = 0;
    std::vector<std::string> rows; // of the width each
    std::vector<bool> reversed;    // rows that are shown dark on light where that is possible
};

// An empty grid of at least one row and column, at most kGridMax each.
Grid grid_make(int width, int height);

inline constexpr int kGridMax = 1000;

// Writes a text from this place on; what lies outside is cut off.
void grid_text(Grid& grid, int row, int column, std::string_view text);

// The rows without blanks at their ends, each with a line end.
std::string grid_print(const Grid& grid);

#endif
