#include "client/monitor_view.h"

#include "client/print.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <numbers>

namespace {

constexpr int kLabelWidth = 11;
constexpr int kCountsColumn = 42;
constexpr int kSkyColumn = 57;  // where the sky may begin
constexpr int kLines = 3;       // answers that are shown last
constexpr int kTopRow = 1;      // below the title
constexpr int kCellWidth = 3;   // of a satellite in the bars
constexpr int kHighestBar = 8;  // rows
constexpr int kSmallestSky = 5; // rows
constexpr int kLargestSky = 21;
constexpr int kDetailRows = 9;
constexpr int kSmallestEllipse = 7; // rows; its direction can't be seen in fewer
constexpr double kSilentS = 3;      // a chip sends every second
constexpr double kFullSignal = 50;  // dB-Hz that fill a bar
constexpr int kDatedWidth = 60;     // columns of a title with date and fix
constexpr char kFewKeysText[] = " s start  x stop  : command  q quit";
constexpr char kKeysText[] = " s start  x stop  v save  o outlet  : command to the chip  q quit";
constexpr char kOutletText[] = " debug outlet: o off  f file  s serial  t tcp  (any other key: leave it)";

std::string number(const std::optional<double>& value, int decimals, const char* unit = "") {
    if (!value) {
        return "-";
    }
    std::array<char, 64> text = {};
    snprintf(text.data(), text.size(), "%.*f%s", decimals, *value, unit);
    return text.data();
}

std::string angle(const std::optional<double>& value, char positive, char negative) {
    return value ? number(std::fabs(*value), 6) + " " + (*value < 0 ? negative : positive) : "-";
}

double seconds_since(Clock::time_point from, Clock::time_point now) {
    return std::chrono::duration<double>(now - from).count();
}

std::string fix_text(const Monitor& monitor, Clock::time_point now) {
    if (!monitor.heard) {
        return "nothing heard of the chip";
    }
    if (seconds_since(*monitor.heard, now) >= kSilentS) {
        return "silent";
    }
    if (monitor.fix.quality.value_or(0) == 0) {
        return "no fix";
    }
    return print_quality(monitor.fix.quality) + " fix, " +
           (monitor.fix.satellites ? std::to_string(*monitor.fix.satellites) : "-") + " satellites";
}

void draw_title(Grid& grid, const Monitor& monitor, Clock::time_point now) {
    const std::string time = monitor.fix.dated ? utc_iso(*monitor.fix.dated) : "no date";
    std::string title = " tavor  " + (grid.width < kDatedWidth ? "" : time + "  ") + fix_text(monitor, now);
    if (monitor.heard) {
        const std::string age = " " + number(seconds_since(*monitor.heard, now), 0, " s ago ");
        const int column = std::max(0, grid.width - static_cast<int>(age.size()));
        if (title.size() > static_cast<size_t>(column)) { // no half of a number in front of it
            title.resize(title.find_last_of(' ', static_cast<size_t>(column)));
        }
        grid_text(grid, 0, column, age);
    }
    grid_text(grid, 0, 0, title);
    grid.reversed[0] = true;
}

std::string ellipse_text(const Ellipse& ellipse) {
    if (!ellipse.major && !ellipse.minor) {
        return "-";
    }
    return number(ellipse.major, 1) + " x " + number(ellipse.minor, 1, " m") + " at " +
           number(ellipse.orientation, 0, " deg");
}

std::string rate_text(const Rates& rates) {
    std::array<char, 96> text = {};
    snprintf(text.data(), text.size(), "%.1f fixes/s, %.0f lines, %.1f kB/s", rates.fixes, rates.sentences,
             rates.bytes / 1000);
    return text.data();
}

void draw_details(Grid& grid, const Monitor& monitor, Clock::time_point now) {
    const Position block = monitor.position.value_or(Position{});
    const Fix& fix = monitor.fix;
    const Ellipse ellipse = monitor_ellipse(monitor, now);
    const bool is_old = monitor.position_at && seconds_since(*monitor.position_at, now) >= 2;
    const std::pair<const char*, std::string> rows[] = {
        {"latitude", angle(block.latitude, 'N', 'S')},
        {"longitude", angle(block.longitude, 'E', 'W')},
        {"height", number(block.height, 1, " m")},
        {"speed", number(fix.speed, 1, " m/s") + "  course " + number(fix.course, 1, " deg")},
        {"DOP", "P " + number(fix.pdop, 2) + "  H " + number(fix.hdop, 2) + "  V " + number(fix.vdop, 2)},
        {"ellipse", ellipse_text(ellipse)},
        {"vertical", number(ellipse.vertical, 1, " m")},
        {"rate", rate_text(monitor_rates(monitor, now))},
        {"last fix", !monitor.position_at ? "-"
                     : is_old             ? number(seconds_since(*monitor.position_at, now), 0, " s ago")
                                          : "now"},
    };
    int row = kTopRow;
    for (const auto& [label, value] : rows) {
        grid_text(grid, row, 1, label);
        grid_text(grid, row++, 1 + kLabelWidth, value);
    }
}

// Satellites used and seen of each system.
void draw_counts(Grid& grid, const std::vector<Satellite>& satellites) {
    grid_text(grid, kTopRow, kCountsColumn, "used/seen");
    int row = kTopRow + 1;
    for (size_t i = 0; i < kSkySystems; ++i) {
        const auto system = static_cast<SkySystem>(i);
        const auto seen = std::count_if(satellites.begin(), satellites.end(),
                                        [&](const Satellite& one) { return one.system == system; });
        const auto used = std::count_if(satellites.begin(), satellites.end(), [&](const Satellite& one) {
            return one.system == system && one.used;
        });
        if (seen > 0) {
            std::array<char, 48> text = {};
            snprintf(text.data(), text.size(), "%c %-8s%2d/%d", sky_letter(system), sky_name(system),
                     static_cast<int>(used), static_cast<int>(seen));
            grid_text(grid, row++, kCountsColumn, text.data());
        }
    }
}

// A plot of this many rows; a character is about twice as high as wide.
struct SkyPlot {
    int row; // of the zenith
    int column;
    double radius; // rows
};

void plot(Grid& grid, const SkyPlot& sky, int elevation, int azimuth, char mark) {
    const double away = sky.radius * (90 - elevation) / 90;
    const double angle = azimuth * std::numbers::pi / 180;
    const int row = sky.row - static_cast<int>(std::lround(away * std::cos(angle)));
    const int column = sky.column + static_cast<int>(std::lround(2 * away * std::sin(angle)));
    grid_text(grid, row, column, std::string_view(&mark, 1));
}

// Satellites that are used are upper-case.
void draw_sky(Grid& grid, const std::vector<Satellite>& satellites, int rows) {
    const int radius = rows / 2;
    const SkyPlot sky = {kTopRow + radius, grid.width - rows - 1, static_cast<double>(radius)};
    constexpr int kHorizonStep = 6; // degrees
    for (int azimuth = 0; azimuth < 360; azimuth += kHorizonStep) {
        plot(grid, sky, 0, azimuth, '.');
    }
    plot(grid, sky, 90, 0, '+');
    constexpr std::array<char, 4> kQuarters = {'N', 'E', 'S', 'W'};
    for (int quarter = 0; quarter < 4; ++quarter) {
        plot(grid, sky, 0, quarter * 90, kQuarters.at(static_cast<size_t>(quarter)));
    }
    for (const bool used : {false, true}) {
        for (const Satellite& one : satellites) {
            if (one.used == used && one.elevation && one.azimuth) {
                const char letter = sky_letter(one.system);
                plot(grid, sky, *one.elevation, *one.azimuth,
                     used ? letter : static_cast<char>(tolower(letter)));
            }
        }
    }
}

// The ellipse to scale, its longer axis as high as the plot; north is above, and a character about twice as
// high as wide.
void draw_ellipse(Grid& grid, const Ellipse& ellipse, int top, int rows) {
    const double longest = std::max(ellipse.major.value_or(0), ellipse.minor.value_or(0));
    if (rows < kSmallestEllipse || !(longest > 0) || !std::isfinite(longest) || !ellipse.major ||
        !ellipse.minor) {
        return;
    }
    const int radius = (rows - 1) / 2;
    const int centre_row = top + radius;
    const int centre_column = kCountsColumn / 2;
    const double angle = std::fmod(ellipse.orientation.value_or(0), 360) * std::numbers::pi / 180;
    constexpr int kSteps = 180;
    for (int i = 0; i < kSteps; ++i) {
        const double turn = 2 * std::numbers::pi * i / kSteps;
        const double along = radius * *ellipse.major / longest * std::cos(turn);
        const double across = radius * *ellipse.minor / longest * std::sin(turn);
        const double north = along * std::cos(angle) - across * std::sin(angle);
        const double east = along * std::sin(angle) + across * std::cos(angle);
        grid_text(grid, centre_row - static_cast<int>(std::lround(north)),
                  centre_column + static_cast<int>(std::lround(2 * east)), "o");
    }
    grid_text(grid, centre_row, centre_column, "+");
    grid_text(grid, top, 1, "N");
}

// One column of the bars: a satellite, or the letter of the system in front of its satellites.
struct Cell {
    const Satellite* satellite;
    char letter;
};

std::vector<Cell> cells_of(const std::vector<Satellite>& satellites) {
    std::vector<Cell> cells;
    for (size_t i = 0; i < satellites.size(); ++i) {
        if (i == 0 || satellites[i].system != satellites[i - 1].system) {
            cells.push_back({nullptr, sky_letter(satellites[i].system)});
        }
        cells.push_back({&satellites[i], ' '});
    }
    return cells;
}

// A bar grows by half rows.
void draw_bar(Grid& grid, int id_row, int column, const Satellite& one, int bars) {
    const double share = std::min(1.0, one.signal.value_or(0) / kFullSignal);
    const int halves = one.signal ? std::max(1, static_cast<int>(std::lround(share * bars * 2))) : 0;
    for (int half = 0; half < halves; half += 2) {
        const bool full = half + 1 < halves;
        const char* text = one.used ? (full ? "##" : "==") : (full ? "::" : "..");
        grid_text(grid, id_row - 1 - half / 2, column, text);
    }
    std::array<char, 16> id = {};
    snprintf(id.data(), id.size(), "%02d", one.number % 100);
    grid_text(grid, id_row, column, id.data());
}

// Bars of all satellites in as many bands as are needed and have room; one that has none is counted.
void draw_bars(Grid& grid, const std::vector<Satellite>& satellites, int top, int rows) {
    const std::vector<Cell> cells = cells_of(satellites);
    const int each = std::max(1, (grid.width - 1) / kCellWidth);
    constexpr int kLeastRows = 3; // two of bars and one of numbers
    const int count = static_cast<int>(cells.size());
    const int bands = std::clamp((count + each - 1) / each, 1, std::max(1, rows / kLeastRows));
    const int bars = std::min(rows / bands - 1, kHighestBar);
    if (bars < 1) {
        return;
    }
    const int shown = std::min(count, bands * each);
    for (int i = 0; i < shown; ++i) {
        const Cell& cell = cells[static_cast<size_t>(i)];
        const int id_row = top + (i / each + 1) * (bars + 1) - 1;
        const int column = 1 + i % each * kCellWidth;
        if (cell.satellite == nullptr) {
            grid_text(grid, id_row, column, std::string_view(&cell.letter, 1));
        } else {
            draw_bar(grid, id_row, column, *cell.satellite, bars);
        }
    }
    if (shown < count) {
        grid_text(grid, top, grid.width - 6, "+" + std::to_string(count - shown) + " ");
    }
}

void draw_lines(Grid& grid, const Monitor& monitor) {
    const int shown = std::min(kLines, static_cast<int>(monitor.lines.size()));
    for (int i = 0; i < shown; ++i) {
        const std::string& line = monitor.lines[monitor.lines.size() - static_cast<size_t>(shown - i)];
        const int row = grid.height - 1 - shown + i;
        grid_text(grid, row, 0, std::string(static_cast<size_t>(grid.width), ' ')); // above what lies there
        grid_text(grid, row, 1, line);
    }
}

// Of a command that is too long the end is shown.
void draw_keys(Grid& grid, const Monitor& monitor) {
    const bool has_room = grid.width >= static_cast<int>(sizeof kKeysText) - 1;
    std::string text = monitor.mode == MonitorMode::kOutlet ? kOutletText
                       : has_room                           ? kKeysText
                                                            : kFewKeysText;
    if (monitor.mode == MonitorMode::kCommand) {
        text = " $PZUL" + monitor.input + "_";
        const auto width = static_cast<size_t>(grid.width);
        text = text.size() > width ? text.substr(text.size() - width) : text;
    }
    grid_text(grid, grid.height - 1, 0, text);
    grid.reversed.back() = true;
}

} // namespace

Grid monitor_draw(const Monitor& monitor, int width, int height, Clock::time_point now) {
    Grid grid = grid_make(width, height);
    const std::vector<Satellite> satellites = sky_satellites(monitor.sky, now);
    const int above = grid.height - 1 - kLines - kTopRow; // rows between title and answers
    const int beside = (grid.width - kSkyColumn) / 2;     // a plot is twice as wide as high
    const int sky = (std::clamp(std::min(above * 3 / 5, beside), kSmallestSky, kLargestSky) - 1) | 1; // odd
    draw_details(grid, monitor, now);
    if (grid.width >= kMonitorWidth) {
        draw_counts(grid, satellites);
        const int below = kTopRow + kDetailRows + 1;
        draw_ellipse(grid, monitor_ellipse(monitor, now), below, kTopRow + sky - below);
        draw_sky(grid, satellites, sky);
    }
    const int top = kTopRow + std::max(sky, kDetailRows);
    draw_bars(grid, satellites, top, above + kTopRow - top);
    if (grid.height > kLines + 1) {
        draw_lines(grid, monitor);
    }
    draw_title(grid, monitor, now);
    draw_keys(grid, monitor);
    return grid;
}
