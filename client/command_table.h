// The commands with their help texts.
#ifndef TAVOR_CLIENT_COMMAND_TABLE_H
#define TAVOR_CLIENT_COMMAND_TABLE_H

#include "client/options.h"

struct CommandRow {
    const char* name;
    Command command;
    const char* description;
    const char* footer;
};

inline constexpr char kExamples[] = R"(
Examples:
  tavorctl watch                     start positioning and follow the output
  tavorctl position --json           the next position as one JSON object
  tavorctl --timeout 2 start         give up after two seconds
  tavorctl --socket PATH stop        a daemon at another place

'tavorctl COMMAND --help' tells more. The daemon sends its output to the client of the latest request.)";

// In the order of the help.
inline constexpr CommandRow kCommands[] = {
    {"start", Command::kStart, "Start positioning",
     "Answer limit: 5 s. Starting twice does no harm. With --wait it is a success only when the chip sends, with\n"
     "--fix when it has a fix; else the most likely cause is told.\n\n"
     "Examples:\n  tavorctl start\n  tavorctl start --wait=5\n  tavorctl start --fix --json"},
    {"stop", Command::kStop, "Stop positioning and switch the chip off",
     "Answer limit: 40 s. It waits for a transfer that hangs in the driver of the SPI controller, which nobody\n"
     "can interrupt; most drivers give up within 30 s.\n\nExamples:\n  tavorctl stop"},
    {"watch", Command::kWatch, "Start positioning and follow sentences, positions and answers of the chip",
     "Silent for --timeout seconds (5), it takes the output back from another client. Positioning goes on at\n"
     "the end unless --stop is given. Binary frames of the chip are not passed to clients.\n\n"
     "Examples:\n  tavorctl watch\n  tavorctl watch --raw > track.nmea\n  tavorctl watch --duration 60 --stop\n"
     "  tavorctl watch --json | jq 'select(.type == \"position\")'"},
    {"position", Command::kPosition, "Start positioning, wait for the next position and print it",
     "Limit: 60 s. Positioning goes on afterwards. The age is by this host's clock; one above 5 s is told.\n\n"
     "Examples:\n  tavorctl position\n  tavorctl position --json --timeout 120\n  tavorctl position --max-age 2"},
    {"save", Command::kSave, "Write the last position to the location file",
     "Answer limit: 5 s. Tells what the file holds afterwards; without any fix yet it is empty, exit status 6.\n\n"
     "Examples:\n  tavorctl save"},
    {"send", Command::kSend, "Send a command to the chip and print its answers",
     "BODY is the command without '$PZUL' and checksum. Positioning must be started.\n\n"
     "Examples:\n  tavorctl send 353,1\n  tavorctl send 353,1 --wait 3 --json"},
    {"debug", Command::kDebug, "Switch the debug outlet",
     "Answer limit: 5 s.\n\nExamples:\n  tavorctl debug tcp\n  tavorctl debug off"},
    {"assist", Command::kAssist, "Start the assistance download and follow its results",
     "Answer limit: 5 s. Follows until interrupted; with --once until the first full cycle is over: a download\n"
     "has failed, or none has ended for --wait seconds. No result comes, and that is a success, while the stored\n"
     "data are fresh or a download that failed before waits for its retry. The daemon goes on by itself.\n"
     "Which file it was and why one failed is taken from the daemon's log, where it can be read.\n\n"
     "Examples:\n  tavorctl assist\n  tavorctl assist --once --json\n"
     "  tavorctl assist --wait 0     don't wait for a download"},
    {"download", Command::kDownload, "Write new firmware into the chip",
     "Limit: 20 min. Positioning is stopped and the chip off afterwards. Let no other client send requests\n"
     "meanwhile: the answer would go there. Interrupting this tool does not stop the daemon. Progress is taken\n"
     "from the daemon's log, where it can be read, and shown on standard error. List, agent and images are looked\n"
     "at before the request; what is wrong ends the command, and nothing is requested.\n\n"
     "Examples:\n  tavorctl download --check\n  tavorctl download --check --flash 0x08000000+0x200000\n"
     "  tavorctl download\n  tavorctl download --log /tmp/tavor.log\n  tavorctl download --json"},
    {"status", Command::kStatus, "Tell the state of daemon, chip and files without asking the daemon",
     "Within 2 s. No request is sent, so nobody loses the daemon's output and no state changes: what stands here\n"
     "comes from the lock and the socket, the power line, the log and the files. What can't be known says why.\n"
     "Exit status 0: a daemon runs, 3: none does or that can't be told.\n\n"
     "Examples:\n  tavorctl status\n  tavorctl status --log /tmp/tavor.log\n  tavorctl status --json | jq .daemon.version"},
    {"check", Command::kCheck, "Look at the device before the daemon's first start",
     "Tells line by line what is good, doubtful or bad, and what to do: settings, devices, power line,\n"
     "directories, queues, assistance, clock, daemon, service. Nothing is changed: what was set or exported for\n"
     "the look is given back. Stop the daemon first: the devices of one that runs are left alone. As root it\n"
     "looks with the rights of the user that the service runs as.\nExit status 0: all good, 1: doubts, 2: bad, 64: a wrong command line.\n\n"
     "Examples:\n  tavorctl check                     better as root\n"
     "  tavorctl check --json | jq 'select(.grade == \"bad\")'"},
    {"record", Command::kRecord, "Start positioning and write the sentences of the chip into a file",
     "FILE is not overwritten; '-' is standard output. Each sentence is written when it comes: a kill loses none.\n"
     "It ends with a summary, by an interrupt too, and positioning goes on unless --stop is given.\n\n"
     "Examples:\n  tavorctl record track.nmea\n  tavorctl record --stamps --duration 3600 --stop track.nmea\n"
     "  tavorctl record --append track.nmea"},
    {"export", Command::kExport, "Make a track for other programs, of a recording or live",
     "RECORDING is a file of sentences, '-' standard input; without it positioning is started and followed until\n"
     "--duration or an interrupt. Times are ISO 8601; a gap begins a new segment.\n\n"
     "Examples:\n  tavorctl export --gpx track.nmea > track.gpx\n  tavorctl export --csv --duration 60\n"
     "  zcat track.nmea.gz | tavorctl export --geojson -"},
    {"monitor", Command::kMonitor, "Start positioning and show it on the whole screen",
     "Position, satellites with their signals, the sky, rates and answers of the chip. Keys: s starts, x stops,\n"
     "v saves, o chooses the debug outlet, : takes a command to the chip, q leaves. Positioning goes on unless\n"
     "--stop is given. --once prints one frame of 80x24 as text and needs no terminal (limit: 10 s).\n\n"
     "Examples:\n  tavorctl monitor\n  tavorctl monitor --once > report.txt"},
};

struct FormatRow {
    const char* option;
    TrackFormat format;
    const char* help;
};

inline constexpr FormatRow kFormats[] = {
    {"--gpx", TrackFormat::kGpx, "GPX 1.1"},
    {"--kml", TrackFormat::kKml, "KML 2.2, for globes"},
    {"--geojson", TrackFormat::kGeoJson, "GeoJSON"},
    {"--csv", TrackFormat::kCsv, "A table, one line for each point"},
};

#endif
