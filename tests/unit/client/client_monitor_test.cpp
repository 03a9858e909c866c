// The monitor's state, keys and picture.
#include "client/monitor_view.h"

#include "support/capture.h"

#include <gtest/gtest.h>

namespace {

using std::string;
using namespace std::chrono_literals;

const Clock::time_point kBegin = Clock::time_point(1000s);

Record sentence(const string& text) {
    Record record;
    record.kind = RecordKind::kNmea;
    record.text = text + "\r\n";
    return record;
}

constexpr char kGga[] = "$GNGGA,151620.00,4317.71149,N,00521.92193,E,1,20,0.72,12.2,M,49.8,M,,*7D";

// A monitor after one epoch.
Monitor epoch() {
    Monitor monitor;
    monitor.begin = kBegin;
    Record position;
    position.kind = RecordKind::kPosition;
    position.position.latitude = 43.295192;
    position.position.longitude = -5.365366;
    position.position.height = 62.0;
    position.position.majorAxis = 7.0;
    position.position.minorAxis = 6.0;
    position.position.orientation = 5.0;
    monitor_take(monitor,
                 sentence("$GNRMC,151620.00,A,4317.71149,N,00521.92193,E,15.551,45.61,211126,,,A,V*02"),
                 kBegin);
    monitor_take(monitor, position, kBegin);
    for (const char* text :
         {kGga, "$GNGSA,A,3,05,,,,,,,,,,,,1.21,0.72,0.97,1*07",
          "$GPGSV,1,1,02,05,45,090,50,07,00,180,25,1*65", "$GLGSV,1,1,01,66,90,000,,1*65"}) {
        monitor_take(monitor, sentence(text), kBegin);
    }
    return monitor;
}

std::vector<string> picture(const Monitor& monitor, int width = 80, int height = 24,
                            Clock::time_point now = kBegin) {
    return lines_of(grid_print(monitor_draw(monitor, width, height, now)));
}

string all(const std::vector<string>& lines) {
    string text;
    for (const string& line : lines) {
        text += line + "\n";
    }
    return text;
}

void type(Monitor& monitor, const string& keys) {
    for (const char key : keys) {
        monitor_key(monitor, key);
    }
}

} // namespace

TEST(Monitor, NarrowTitleLeavesWholeWordsBesideTheAge) {
    EXPECT_EQ(picture(epoch(), 60)[0], " tavor  2026-11-21T15:16:20.000Z  autonomous fix,   0 s ago");
}

TEST(Monitor, SmallTerminalKeepsWhatMattersMost) {
    Monitor monitor = epoch();
    for (const char* line : {"daemon: a", "daemon: b", "daemon: c"}) {
        monitor_line(monitor, line);
    }
    const auto lines = picture(monitor, 40, 10);
    EXPECT_EQ(lines[0], " tavor  autonomous fix, 20      0 s ago");
    EXPECT_EQ(lines[6], " daemon: a") << "nothing of the row behind it";
    EXPECT_EQ(lines[8], " daemon: c");
    EXPECT_NE(lines[9].find("q quit"), string::npos) << lines[9];
}

TEST(Monitor, FrameHasEverythingInEightyColumns) {
    Monitor monitor = epoch();
    monitor_line(monitor, "chip: $PZUL001,353,3*24\n");
    const auto lines = picture(monitor);
    ASSERT_EQ(lines.size(), 24U);
    EXPECT_EQ(lines[0], " tavor  2026-11-21T15:16:20.000Z  autonomous fix, 20 satellites         0 s ago");
    EXPECT_EQ(lines[1].substr(0, 51), " latitude   43.295192 N                   used/seen");
    EXPECT_EQ(lines[2].substr(0, 56), " longitude  5.365366 W                    G GPS      1/2");
    EXPECT_EQ(lines[3].substr(0, 56), " height     62.0 m                        R GLONASS  0/1");
    EXPECT_EQ(lines[4].substr(0, 40), " speed      8.0 m/s  course 45.6 deg    ");
    EXPECT_EQ(lines[5].substr(0, 40), " DOP        P 1.21  H 0.72  V 0.97      ");
    EXPECT_EQ(lines[6].substr(0, 40), " ellipse    7.0 x 6.0 m at 5 deg        ");
    EXPECT_EQ(lines[22], " chip: $PZUL001,353,3*24");
    EXPECT_EQ(lines[23], " s start  x stop  v save  o outlet  : command to the chip  q quit");
}

TEST(Monitor, GnsTellsThePositionWhereNoGgaComes) {
    Monitor monitor;
    monitor.begin = kBegin;
    const string gns = "$GNGNS,151620.00,4317.71149,S,00521.92193,W,AAN,21,0.6,13.5,50.1,,,V*00";
    monitor_take(monitor, sentence(gns), kBegin);
    EXPECT_EQ(picture(monitor)[1].substr(0, 24), " latitude   43.295191 S ");
    EXPECT_EQ(picture(monitor)[2].substr(0, 24), " longitude  5.365365 W  ");
    EXPECT_EQ(picture(monitor)[3].substr(0, 24), " height     63.6 m      ");
    monitor_take(monitor, sentence("$GNGNS,151621.00,,,,,NNN,00,99.9,,,,,V*00"), kBegin);
    EXPECT_EQ(picture(monitor)[3].substr(0, 24), " height     63.6 m      ") << "the last one";
    Monitor both = epoch();
    monitor_take(both, sentence(gns), kBegin);
    EXPECT_EQ(picture(both)[3].substr(0, 24), " height     62.0 m      ") << "the daemon's goes before";
}

TEST(Monitor, BarsGrowWithTheSignalAndTellUse) {
    const auto lines = picture(epoch());
    EXPECT_EQ(lines[19], " G  05 07 R  66");
    EXPECT_EQ(lines[18], "    ## ::") << "none for a satellite without a signal";
    EXPECT_EQ(lines[16], "    ## ::") << "half of the height";
    EXPECT_EQ(lines[15], "    ## ..");
    EXPECT_EQ(lines[12], "    ##");
}

TEST(Monitor, SkyHasNorthAboveAndEastAtTheRight) {
    const auto lines = picture(epoch());
    const int centre = 68; // column of the zenith, row 6
    EXPECT_EQ(lines[1].at(centre), 'N');
    EXPECT_EQ(lines[6].at(centre), 'r') << "in the zenith, not used";
    EXPECT_EQ(lines[6].at(centre + 5), 'G') << "half-way down in the east, used";
    EXPECT_EQ(lines[11].at(centre), 'g') << "at the horizon in the south";
    EXPECT_EQ(lines[6].at(centre - 10), 'W');
}

TEST(Monitor, GstTakesThePlaceOfThePositionBlocksEllipse) {
    Monitor monitor = epoch();
    monitor_take(monitor, sentence("$GNGST,151620.00,2.1,1.9,1.2,30.0,1.4,1.6,2.8*00"), kBegin);
    EXPECT_EQ(picture(monitor)[6].substr(0, 34), " ellipse    1.9 x 1.2 m at 30 deg ");
    EXPECT_EQ(picture(monitor)[7].substr(0, 18), " vertical   2.8 m ");
    EXPECT_EQ(picture(monitor, 80, 24, kBegin + 6s)[6].substr(0, 30), " ellipse    7.0 x 6.0 m at 5 d");
}

TEST(Monitor, EllipseIsDrawnToScaleWhereThereIsRoom) {
    Monitor monitor = epoch();
    monitor_take(monitor, sentence("$GNGST,151620.00,2.1,8.0,2.0,90.0,1.4,1.6,2.8*00"), kBegin);
    const auto lines = picture(monitor, 120, 40);
    const int centre = 21; // column of the position, row 16; five rows are eight metres
    EXPECT_EQ(lines[16].substr(0, 42), string(11, ' ') + "oo        +        oo" + string(10, ' '))
        << all(lines);
    EXPECT_EQ(lines[15].at(centre), 'o') << "a quarter as high as wide";
    EXPECT_EQ(lines[17].at(centre), 'o');
    EXPECT_EQ(lines[14].substr(0, 42), string(42, ' '));
    EXPECT_EQ(lines[11].substr(0, 42), " N" + string(40, ' '));
    monitor_take(monitor, sentence("$GNGST,151620.00,2.1,8.0,8.0,30.0,1.4,1.6,2.8*00"), kBegin);
    EXPECT_EQ(picture(monitor, 120, 40)[11].at(centre), 'o') << "a circle";
    EXPECT_EQ(picture(monitor)[10].substr(0, 42), string(42, ' ')) << "24 rows have no room";
    monitor_take(monitor, sentence("$GNGST,151620.00,2.1,0.0,,30.0,1.4,1.6,2.8*00"), kBegin);
    EXPECT_EQ(picture(monitor, 120, 40)[16].substr(0, 42), string(42, ' ')) << "no ellipse";
}

TEST(Monitor, SkyLeavesTheTextBesideItAlone) {
    for (const int width : {80, 81, 82, 91, 120}) {
        const auto lines = picture(epoch(), width, 60);
        EXPECT_EQ(lines[3].substr(42, 15), "R GLONASS  0/1 ") << width;
        EXPECT_EQ(lines[8].substr(0, 57), picture(epoch())[8].substr(0, 57)) << width;
    }
}

TEST(Monitor, RatesAreMeansOfFullSeconds) {
    Monitor monitor;
    monitor.begin = kBegin;
    for (int i = 0; i < 100; ++i) {
        monitor_take(monitor, sentence(kGga), kBegin + i * 100ms);
    }
    const Rates rates = monitor_rates(monitor, kBegin + 10s);
    EXPECT_NEAR(rates.fixes, 10, 1e-9);
    EXPECT_NEAR(rates.bytes, 10.0 * (sizeof kGga + 1), 1e-6);
    EXPECT_EQ(monitor_rates(monitor, kBegin + 60s).sentences, 0);
}

TEST(Monitor, StateBeforeAnythingComesIsTold) {
    Monitor monitor;
    monitor.begin = kBegin;
    EXPECT_EQ(picture(monitor)[0], " tavor  no date  nothing heard of the chip");
    monitor_take(monitor, sentence("$GNGGA,151620.00,,,,,0,00,99.99,,M,,M,,*7D"), kBegin);
    EXPECT_EQ(picture(monitor)[0].substr(0, 24), " tavor  no date  no fix ");
    EXPECT_EQ(picture(epoch(), 80, 24, kBegin + 7s)[0].substr(0, 42),
              " tavor  2026-11-21T15:16:20.000Z  silent  ");
    EXPECT_EQ(picture(epoch(), 80, 24, kBegin + 7s)[9].substr(0, 20), " last fix   7 s ago ");
}

TEST(Monitor, EverySizeIsDrawnWithinItsBounds) {
    Monitor monitor = epoch();
    for (int i = 1; i <= 16; ++i) {
        string text = "$GPGSV,16," + std::to_string(i) + ",64";
        for (int k = 1; k <= 4; ++k) {
            text += "," + std::to_string(4 * i + k) + ",10,100,40";
        }
        monitor_take(monitor, sentence(text + ",1*65"), kBegin);
    }
    monitor_line(monitor, string(500, 'x'));
    for (const int width : {1, 2, 20, 79, 80, 81, 200}) {
        for (const int height : {1, 2, 3, 5, 8, 12, 23, 24, 25, 60}) {
            const Grid grid = monitor_draw(monitor, width, height, kBegin);
            ASSERT_EQ(grid.rows.size(), static_cast<size_t>(height));
            for (const string& row : grid.rows) {
                ASSERT_EQ(row.size(), static_cast<size_t>(width));
            }
        }
    }
    EXPECT_NE(all(picture(monitor)).find("+15"), string::npos);
    EXPECT_NE(all(picture(monitor)).find(" 51"), string::npos) << "two bands";
    EXPECT_EQ(all(picture(monitor, 79, 24)).find("used/seen"), string::npos);
}

TEST(Monitor, HostileTextReachesTheGridAsPrintableAscii) {
    Monitor monitor = epoch();
    Record chip;
    chip.kind = RecordKind::kChip;
    chip.text = "$PZUL\x1b[2J\x80\n";
    monitor_take(monitor, chip, kBegin);
    const string text = all(picture(monitor));
    EXPECT_NE(text.find("chip: $PZUL\\x1b[2J\\x80"), string::npos);
    EXPECT_EQ(text.find('\x1b'), string::npos);
    for (int i = 0; i < 1000; ++i) {
        monitor_line(monitor, "line");
    }
    EXPECT_LE(monitor.lines.size(), 100U);
}

TEST(Monitor, KeysAskForTheirRequests) {
    Monitor monitor;
    EXPECT_EQ(monitor_key(monitor, 's').request, TAVOR_REQUEST_START);
    EXPECT_EQ(monitor_key(monitor, 'x').request, TAVOR_REQUEST_STOP);
    EXPECT_EQ(monitor_key(monitor, 'v').request, TAVOR_REQUEST_SAVE_LOCATION);
    EXPECT_TRUE(monitor_key(monitor, 'q').quit);
    for (const int other : {0, int{'a'}, int{'f'}, kKeyEnter, kKeyEscape, 1000}) {
        const MonitorAction action = monitor_key(monitor, other);
        EXPECT_FALSE(action.quit || action.request) << other;
    }
    monitor_key(monitor, 'o');
    EXPECT_NE(picture(monitor)[23].find("debug outlet: o off  f file"), string::npos);
    EXPECT_EQ(monitor_key(monitor, 't').request, TAVOR_REQUEST_DEBUG_TCP);
    EXPECT_FALSE(monitor_key(monitor, 't').request) << "the choice is over";
    monitor_key(monitor, 'o');
    EXPECT_FALSE(monitor_key(monitor, 'q').quit) << "leaves the choice only";
}

TEST(Monitor, LineBecomesACommandForTheChip) {
    Monitor monitor;
    type(monitor, ":353,12");
    monitor_key(monitor, kKeyBackspace);
    EXPECT_EQ(picture(monitor)[23], " $PZUL353,1_");
    const MonitorAction action = monitor_key(monitor, kKeyEnter);
    EXPECT_EQ(action.request, TAVOR_REQUEST_COMMAND);
    EXPECT_EQ(action.text, "353,1");
    EXPECT_EQ(monitor.lines.back(), "sent: $PZUL353,1");
    type(monitor, ":x");
    monitor_key(monitor, kKeyEscape);
    EXPECT_TRUE(monitor_key(monitor, 'q').quit);
    type(monitor, ":$");
    EXPECT_FALSE(monitor_key(monitor, kKeyEnter).request);
    EXPECT_EQ(monitor.lines.back().rfind("not sent: ", 0), 0U);
    type(monitor, ":" + string(500, 'x'));
    EXPECT_EQ(monitor.input.size(), 347U);
    EXPECT_EQ(picture(monitor)[23].back(), '_');
}

TEST(Monitor, SilenceIsBrokenLessAndLessOftenUnlessStopWasAskedFor) {
    Monitor monitor;
    monitor_hear(monitor, kBegin);
    const auto breaks = [&](std::chrono::seconds after) {
        return monitor_breaks_silence(monitor, kBegin + after);
    };
    EXPECT_FALSE(breaks(4s));
    EXPECT_TRUE(breaks(5s));
    EXPECT_FALSE(breaks(14s)) << "twice the time";
    EXPECT_TRUE(breaks(15s));
    monitor_hear(monitor, kBegin + 20s);
    EXPECT_TRUE(breaks(25s)) << "the first limit again";
    monitor_key(monitor, 'x');
    EXPECT_FALSE(breaks(1000s)) << "a daemon that is restarted meanwhile stays as it is";
    monitor_key(monitor, 'v');
    EXPECT_FALSE(breaks(1000s));
    monitor_key(monitor, 's');
    EXPECT_FALSE(breaks(1009s)) << "counted from the start on";
    EXPECT_TRUE(breaks(1010s));
}
