#include "chip/chip_source.h"

#include "chip/chip_replay.h"
#include "chip/chip_trajectory.h"

#include <algorithm>

namespace {

constexpr uint64_t kUsPerMs = 1000;
constexpr uint64_t kUsPerSecond = 1000000;
constexpr size_t kFullSpeedLowWater = 8192; // bytes
constexpr uint64_t kMaxOverdueSeconds = 60; // what a host that slept longer has missed is not produced at all
constexpr size_t kLeastEpochSize = 250;     // bytes of a trajectory epoch

uint64_t epoch_utc_us(const ChipOptions& options, uint64_t epoch) {
    return epoch * kUsPerSecond / options.rate_hz;
}

uint64_t epoch_at_or_after(const ChipOptions& options, uint64_t utc_us) {
    return (utc_us * options.rate_hz + kUsPerSecond - 1) / kUsPerSecond;
}

bool limit_reached(const ChipOptions& options, const ChipStatus& status) {
    return options.sentence_limit != 0 && status.sentences_produced >= options.sentence_limit;
}

ChipEpoch epoch_of(const ChipOptions& options, uint64_t number, bool fix) {
    const uint64_t utc = epoch_utc_us(options, number);
    const auto since_start = static_cast<int64_t>(utc - options.utc_at_zero_us);
    return {utc, static_cast<double>(since_start) / kUsPerSecond, fix, number % options.rate_hz == 0};
}

// UTC of the first fix after the last cold boot, as far as it can be told now.
uint64_t first_fix_utc_us(const ChipSourceParts& chip) {
    const uint64_t alone = chip.boot_us + chip.options.time_to_first_fix_ms * kUsPerMs;
    const uint64_t assisted =
        std::max(chip.boot_us + chip.options.assisted_first_fix_ms * kUsPerMs, chip.aiding.assisted_us);
    return chip_utc_us(chip.options, chip.status.assisted ? std::min(alone, assisted) : alone);
}

bool has_fix(const ChipSourceParts& chip, uint64_t utc_us) {
    return utc_us >= first_fix_utc_us(chip);
}

void note_fix(const ChipSourceParts& chip, uint64_t utc_us) {
    if (!chip.status.first_fix_ms) {
        chip.status.first_fix_ms = (utc_us - chip_utc_us(chip.options, chip.boot_us)) / kUsPerMs;
    }
}

void stage_replay(ChipSourceState& source, const ChipOptions& options) {
    chip_replay_epoch(options.replay, source.replay_position, source.staged);
    if (source.staged.empty() && options.loop) {
        source.replay_position = 0;
        chip_replay_epoch(options.replay, source.replay_position, source.staged);
    }
}

// Makes the sentences of the next epoch ready. False: there are no more.
bool stage_epoch(const ChipSourceParts& chip) {
    ChipSourceState& source = chip.source;
    source.staged.clear();
    source.staged_next = 0;
    if (chip.options.source == ChipSource::replay) {
        stage_replay(source, chip.options);
    } else if (chip.options.source == ChipSource::trajectory) {
        const bool fix = has_fix(chip, epoch_utc_us(chip.options, source.epoch));
        if (fix) {
            note_fix(chip, epoch_utc_us(chip.options, source.epoch));
        }
        chip_trajectory_epoch(chip.options, epoch_of(chip.options, source.epoch, fix), source.staged);
    }
    ++source.epoch;
    source.finished = source.staged.empty();
    return !source.finished;
}

void produce_staged(const ChipSourceParts& chip, bool elastic) {
    const std::string& sentence = chip.source.staged[chip.source.staged_next++];
    ++chip.status.sentences_produced;
    if (elastic) {
        chip_fifo_push(chip.transmit, sentence, true);
    } else if (!chip_fifo_offer(chip.transmit, sentence, true)) {
        ++chip.status.sentences_dropped;
    }
    chip.source.finished = limit_reached(chip.options, chip.status);
}

bool all_staged_produced(const ChipSourceState& source) {
    return source.staged_next >= source.staged.size();
}

void run_full_speed(const ChipSourceParts& chip) {
    const size_t low_water = std::min<size_t>(kFullSpeedLowWater, chip.options.tx_fifo_size / 2);
    while (!chip.source.finished && chip_fifo_size(chip.transmit) < low_water) {
        if (all_staged_produced(chip.source) && !stage_epoch(chip)) {
            return;
        }
        produce_staged(chip, true);
    }
}

void run_paced(const ChipSourceParts& chip, uint64_t now_us) {
    const uint64_t utc = chip_utc_us(chip.options, now_us);
    const uint64_t oldest = utc - std::min(utc, kMaxOverdueSeconds * kUsPerSecond);
    chip.source.epoch = std::max(chip.source.epoch, epoch_at_or_after(chip.options, oldest));
    while (!chip.source.finished && epoch_utc_us(chip.options, chip.source.epoch) <= utc &&
           stage_epoch(chip)) {
        while (!chip.source.finished && !all_staged_produced(chip.source)) {
            produce_staged(chip, false);
        }
    }
}

} // namespace

void chip_source_boot(const ChipSourceParts& chip, uint64_t now_us) {
    chip.source = {};
    chip.status.first_fix_ms.reset();
    chip.source.epoch = epoch_at_or_after(chip.options, chip_utc_us(chip.options, now_us));
    chip.source.finished =
        chip.options.source == ChipSource::none || limit_reached(chip.options, chip.status);
}

void chip_source_run(const ChipSourceParts& chip, uint64_t now_us) {
    if (chip.source.finished) {
        return;
    }
    if (chip.options.full_speed) {
        run_full_speed(chip);
    } else {
        run_paced(chip, now_us);
    }
}

void chip_source_backlog(const ChipSourceParts& chip, size_t bytes, uint64_t now_us) {
    const uint64_t now = epoch_at_or_after(chip.options, chip_utc_us(chip.options, now_us));
    const bool fix = has_fix(chip, epoch_utc_us(chip.options, now));
    uint64_t epoch = now - std::min<uint64_t>(now, bytes / kLeastEpochSize + 1);
    std::vector<std::string> sentences;
    for (size_t size = 0; size < bytes; ++epoch) {
        sentences.clear();
        chip_trajectory_epoch(chip.options, epoch_of(chip.options, epoch, fix), sentences);
        for (const std::string& sentence : sentences) {
            chip_fifo_push(chip.transmit, sentence, true);
            ++chip.status.sentences_produced;
            size += sentence.size();
        }
    }
}
