#include "client/download_log.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace {

constexpr size_t kImagesMax = 1000; // remembered
constexpr size_t kErrorMax = 400;   // characters kept
constexpr size_t kTimeOfDaySize = 23;
constexpr uint64_t kBlockSize = 4096;
constexpr uint64_t kLargeBlockSize = 65536; // erased at once where it fits
constexpr uint32_t kManyDeviceErrors = 3;   // fewer may be passing ones
constexpr uint32_t kAgentLengthWord = 3;    // after the upload's command and the address

struct Entry {
    bool error;
    std::string_view text;
};

struct Advice {
    std::string_view begin; // of the error
    std::string_view text;
};

constexpr std::string_view kDevice = "[spi]"; // after the service's own stamp, which has no time

constexpr std::string_view kLink =
    "check power, wiring and the SPI settings of tavor.conf, lower 'SPI frequency=' and try again";

constexpr std::string_view kLetReadAgent = "let the daemon read the download agent's file";
constexpr std::string_view kMedium =
    "look at the medium that holds the image list and its files and try again";
constexpr std::string_view kMemory = "the daemon is short of memory: end other programs and try again";

constexpr Advice kAdvices[] = {
    {"open file Failed:", "put the image list there or correct 'image path='"},
    {"Parsing config image count", "the image list names no image: add a '- rom:' block"},
    {"UnExpected line=", "correct this line of the image list: a block is file:, name: and begin_address:; "
                         "write no '- rom:' into a comment"},
    {"The file(", kMedium},
    {"download_send_single_block The file(", kMedium},
    {"read_cfg_file", kMemory},
    {"concat malloc", kMemory},
    {"da_format_flash malloc", kMemory},
    {"download_image malloc", kMemory},
    {"hdl_download_flow malloc", kMemory},
    {"parsing_kite malloc", kMemory},
    {"read_dma_to_pool",
     "the chip sends more than an answer: see that the agent's file is the one for this chip and try again"},
    {"Out of index", "remove '- rom:' from the comments of the image list"},
    {"DA len is zero", "put the download agent's file at the place of 'DA path='"},
    {"Open da file", kLetReadAgent},
    {"Reading error", kLetReadAgent},
    {"Handshake timeout",
     "the chip's boot ROM is silent: check power, 'Power control gpio=' and the SPI settings"},
    {"========== Handshake fail",
     "another client stopped it while the chip's boot ROM answered wrongly: check the "
     "SPI settings and try again"},
    {"download given up",
     "another request came while the chip acknowledged nothing: check power, wiring and the "
     "download agent's file, and try again"},
    {"btrom checksum", kLink},
    {"hdl_brom", kLink},
    {"[spi]can't send", kLink},
    {"[spi]", "check 'SPI port path=' and the daemon's right to open that device"},
    {"[SPIM]", kLink},
    {"SPI master", kLink},
    {"1. SPI master", kLink},
    {"hdl_flash_",
     "the download agent does not answer: see that its file is the one for this chip and try again"},
    {"format_sliding", "the flash was not erased in time: see that it is not protected and try again"},
    {"FORMAT_TIMEOUT", "the flash was not erased in time: see that it is not protected and try again"},
    {"download_image getFileSize", "an image file is empty or missing: put it beside the image list"},
    {"image file changed", "leave the image files alone while they are written and try again"},
    {"image file can't be looked at", kMedium},
    {"can not open", "put the image file beside the image list, readable for the daemon"},
    {"download_sliding", "blocks were not taken: see that begin_address lies inside the flash and try again"},
    {"check_image_crc", "the flash holds something else: see that no image overlaps another and try again"},
    {"hdl_finish_kite", "all images are written and checked: try 'tavorctl start'; if it fails, try again"},
};

constexpr std::string_view kOtherAdvice =
    "try again: a chip whose download failed can be written anew at any time";

// Lines that only sum up what another one has told better.
constexpr std::string_view kSummaries[] = {"========== Handshake fail",
                                           "Parsing config content",
                                           "download_sliding_window_flow fail",
                                           "format_sliding_window_flow fail",
                                           "download /",
                                           "check_image_crc /",
                                           "echoU32 want"};

bool begins_with(std::string_view text, std::string_view begin) {
    return text.substr(0, begin.size()) == begin;
}

std::string_view without_line_end(std::string_view text) {
    return text.substr(0, text.find_last_not_of("\r\n") + 1);
}

// The text after the stamps "2024-05-01 12:00:00.123 [I][   1.234] "; a missing time of day is empty.
std::optional<Entry> stamped_entry(std::string_view line) {
    const size_t level = std::min(line.find(" [I]["), line.find(" [E]["));
    if (level > kTimeOfDaySize) { // also when neither is found
        return std::nullopt;
    }
    const size_t elapsed_end = line.find("] ", level + 5);
    if (elapsed_end == std::string_view::npos) {
        return std::nullopt;
    }
    return Entry{line[level + 2] == 'E', without_line_end(line.substr(elapsed_end + 2))};
}

// An error of the SPI device, which is the chip's link in positioning too.
std::optional<Entry> device_entry(std::string_view line) {
    constexpr std::string_view kServiceError = "[LOCSERV] ERR: ";
    if (!begins_with(line, kServiceError) || !begins_with(line.substr(kServiceError.size()), kDevice)) {
        return std::nullopt;
    }
    return Entry{true, without_line_end(line.substr(kServiceError.size()))};
}

bool is_start(const Entry& entry) {
    return !entry.error && begins_with(entry.text, "========== Download start");
}

// The number after the beginning, which the text must have.
std::optional<uint32_t> number_after(std::string_view text, std::string_view begin, int base) {
    if (!begins_with(text, begin)) {
        return std::nullopt;
    }
    text.remove_prefix(begin.size());
    uint32_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return result.ec == std::errc() ? std::optional(value) : std::nullopt;
}

// What failed before has been overcome.
void forget_errors(DownloadProgress& progress) {
    progress.error.clear();
    progress.device_error.clear();
    progress.device_errors = 0;
}

void enter(DownloadProgress& progress, DownloadPhase phase) {
    progress.phase = phase;
    progress.image = 0;
    progress.done = 0;
    progress.total.reset();
    progress.again = 0;
    forget_errors(progress);
}

void set_total(DownloadProgress& progress, std::optional<uint64_t> total) {
    progress.total = total;
    progress.done = std::min(progress.done, total.value_or(progress.done));
}

// Takes up the image with the number, from 1.
void enter_image(DownloadProgress& progress, DownloadPhase phase, uint32_t image, const FileSize& size_of) {
    enter(progress, phase);
    progress.image = image;
    if (phase == DownloadPhase::kWrite && image <= progress.list.size()) {
        set_total(progress, size_of(progress.list[image - 1].path));
    }
}

void next_image(DownloadProgress& progress, const FileSize& size_of) {
    if (progress.image < progress.images) {
        enter_image(progress, progress.phase, progress.image + 1, size_of);
    }
}

// A second pass and a response that comes twice don't take it back.
void count_to(DownloadProgress& progress, uint64_t done) {
    done = std::max(done, progress.done);
    progress.done = progress.total ? std::min(done, *progress.total) : done;
    forget_errors(progress);
}

void take_error(DownloadProgress& progress, std::string_view text) {
    if (begins_with(text, kDevice)) {
        progress.device_error = text.substr(0, kErrorMax);
        ++progress.device_errors;
    }
    const bool summary = std::any_of(std::begin(kSummaries), std::end(kSummaries),
                                     [&](std::string_view begin) { return begins_with(text, begin); });
    if (!summary || progress.error.empty()) {
        progress.error = text.substr(0, kErrorMax);
    }
}

// The number at the end of "begin_address:[TEXT]=> 0xNUMBER", 0 when there is none.
uint32_t begin_address(std::string_view text) {
    const size_t value = text.rfind("=> 0x");
    return value == std::string_view::npos ? 0 : number_after(text.substr(value), "=> 0x", 16).value_or(0);
}

// Takes a line about the current entry, which is whole with both of its lines.
void take_entry(DownloadProgress& progress, std::string_view text) {
    constexpr std::string_view kName = "file name=";
    const bool name = begins_with(text, kName);
    if (!name && !begins_with(text, "begin_address:[")) {
        return;
    }
    progress.list.resize(std::max(progress.list.size(), progress.list_index + 1));
    DownloadImage& entry = progress.list[progress.list_index];
    if (name) {
        entry.path = text.substr(kName.size());
    } else {
        entry.begin = begin_address(text);
    }
    (name ? entry.has_path : entry.has_begin) = true;
    progress.list_index += entry.has_path && entry.has_begin ? 1 : 0;
}

void take_list(DownloadProgress& progress, std::string_view text) {
    if (const auto count = number_after(text, "image count=", 10)) {
        progress.images = *count;
    } else if (begins_with(text, "skip [") && progress.list_index < progress.list.size()) {
        DownloadImage& entry = progress.list[progress.list_index];
        entry.has_path = entry.has_begin = false; // a comment cut the block short: the next takes its place
    } else if (progress.list_index < kImagesMax) {
        take_entry(progress, text);
    }
}

void take_agent(DownloadProgress& progress, std::string_view text) {
    if (begins_with(text, "echoU8 Send 0xD7")) {
        progress.agent_words = 1;
    } else if (const auto word = number_after(text, "echoU32 Send 0x", 16)) {
        progress.agent_words += progress.agent_words > 0 ? 1 : 0;
        if (progress.agent_words == kAgentLengthWord) {
            set_total(progress, *word);
        }
    } else if (begins_with(text, "SEND ")) {
        const size_t total = text.rfind("total ");
        const auto done =
            total == std::string_view::npos ? std::nullopt : number_after(text.substr(total), "total ", 10);
        count_to(progress, done.value_or(0));
    } else if (const auto address = number_after(text, "########## Flash address: 0x", 16)) {
        progress.flash_begin = *address;
    } else if (const auto size = number_after(text, "########## Flash size: 0x", 16)) {
        progress.flash_size = *size;
    }
}

void take_second_pass(DownloadProgress& progress, std::string_view text, std::string_view begin) {
    progress.again = number_after(text, begin, 10).value_or(progress.again);
}

void take_erase(DownloadProgress& progress, std::string_view text) {
    set_total(progress, progress.flash_size != 0 ? std::optional(progress.flash_size) : std::nullopt);
    const auto address = number_after(text, "Format resp address(0x", 16);
    if (address && *address >= progress.flash_begin) {
        const bool large = progress.flash_size >= kLargeBlockSize && *address % kLargeBlockSize == 0;
        count_to(progress, *address - progress.flash_begin + (large ? kLargeBlockSize : kBlockSize));
    }
    take_second_pass(progress, text, "FORMAT Re-Send: count = ");
}

void take_write(DownloadProgress& progress, std::string_view text) {
    const auto address = number_after(text, "Download resp address(0x", 16);
    const size_t index = progress.image - 1;
    if (address && index < progress.list.size() && *address >= progress.list[index].begin) {
        count_to(progress, *address - progress.list[index].begin + kBlockSize);
    }
    take_second_pass(progress, text, "DOWNLOAD Re-Send: count = ");
}

bool is_pass(std::string_view text, std::string_view begin) {
    return begins_with(text, begin) && text.size() > 5 && text.substr(text.size() - 5) == " PASS";
}

// Lines that begin a phase, whatever the present one is. True when this is one.
bool take_phase(DownloadProgress& progress, std::string_view text, const FileSize& size_of) {
    if (begins_with(text, "Please reboot chip again")) {
        enter(progress, DownloadPhase::kHandshake);
    } else if (begins_with(text, "========== Handshake pass")) {
        enter(progress, DownloadPhase::kAgent);
    } else if (begins_with(text, "Format time:")) {
        enter_image(progress, DownloadPhase::kWrite, 1, size_of);
    } else if (begins_with(text, "Download time:")) {
        enter_image(progress, DownloadPhase::kCheck, 1, size_of);
    } else if (begins_with(text, "Check image crc time:")) {
        enter(progress, DownloadPhase::kFinish);
    } else if (begins_with(text, "========== Download Finish")) {
        enter(progress, DownloadPhase::kDone);
    } else if (begins_with(text, "========== Download Fail")) {
        progress.phase = DownloadPhase::kFailed;
    } else {
        return false;
    }
    return true;
}

void take_within_phase(DownloadProgress& progress, std::string_view text, const FileSize& size_of) {
    switch (progress.phase) {
    case DownloadPhase::kWaiting:
        return take_list(progress, text);
    case DownloadPhase::kAgent:
        if (begins_with(text, "########## Format send")) {
            enter(progress, DownloadPhase::kErase);
            return take_erase(progress, text);
        }
        return take_agent(progress, text);
    case DownloadPhase::kErase:
        return take_erase(progress, text);
    case DownloadPhase::kWrite:
        return is_pass(text, "download ") ? next_image(progress, size_of) : take_write(progress, text);
    case DownloadPhase::kCheck:
        return is_pass(text, "check_image_crc ") ? next_image(progress, size_of) : void();
    default:
        return;
    }
}

void take(DownloadProgress& progress, const Entry& entry, const FileSize& size_of) {
    if (entry.error) {
        take_error(progress, entry.text);
    } else if (!take_phase(progress, entry.text, size_of)) {
        take_within_phase(progress, entry.text, size_of);
    }
}

} // namespace

bool download_log_ended(const DownloadProgress& progress) {
    return progress.phase == DownloadPhase::kDone || progress.phase == DownloadPhase::kFailed;
}

bool download_log_line(DownloadProgress& progress, std::string_view line, const FileSize& size_of) {
    const std::optional<Entry> stamped = stamped_entry(line);
    if (stamped && is_start(*stamped) && !download_log_ended(progress)) {
        const bool others = progress.others;
        progress = {};
        progress.begun = true;
        progress.others = others;
        return true;
    }
    if (!progress.begun || download_log_ended(progress)) {
        progress.others = progress.others || (stamped && !progress.begun);
        return false;
    }
    const std::optional<Entry> entry = stamped ? stamped : device_entry(line);
    if (entry) {
        take(progress, *entry, size_of);
    }
    return entry.has_value();
}

std::string_view download_log_cause(const DownloadProgress& progress) {
    return progress.device_errors >= kManyDeviceErrors ? progress.device_error : progress.error;
}

std::string_view download_phase_name(DownloadPhase phase) {
    constexpr std::array<std::string_view, 9> kNames = {"waiting", "handshake", "agent", "erase", "write",
                                                        "check",   "finish",    "done",  "failed"};
    return kNames[static_cast<size_t>(phase)];
}

std::string_view download_advice(std::string_view error) {
    const auto* advice = std::find_if(std::begin(kAdvices), std::end(kAdvices),
                                      [&](const Advice& row) { return begins_with(error, row.begin); });
    return advice == std::end(kAdvices) ? kOtherAdvice : advice->text;
}
