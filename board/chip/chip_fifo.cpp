#include "chip/chip_fifo.h"

#include <algorithm>

namespace {

constexpr size_t kCompactFrom = 65536;    // bytes read before the rest is moved to the front
constexpr size_t kKeepCapacity = 1048576; // bytes of memory that an empty buffer keeps

// The rest is moved only when it is shorter than what has been read, so that each byte moves about once.
void compact(ChipFifo& fifo) {
    if (fifo.head == fifo.bytes.size()) {
        fifo.bytes.clear();
        fifo.head = 0;
        if (fifo.bytes.capacity() > kKeepCapacity) {
            fifo.bytes.shrink_to_fit();
        }
    } else if (fifo.head >= kCompactFrom && fifo.head > fifo.bytes.size() / 2) {
        fifo.bytes.erase(fifo.bytes.begin(), fifo.bytes.begin() + static_cast<std::ptrdiff_t>(fifo.head));
        fifo.head = 0;
    }
}

} // namespace

size_t chip_fifo_size(const ChipFifo& fifo) {
    return fifo.bytes.size() - fifo.head;
}

void chip_fifo_clear(ChipFifo& fifo) {
    const size_t limit = fifo.limit;
    fifo = {};
    fifo.limit = limit;
}

bool chip_fifo_offer(ChipFifo& fifo, const std::string& bytes, bool is_sentence) {
    const bool fits = chip_fifo_size(fifo) + bytes.size() <= fifo.limit;
    if (fits) {
        chip_fifo_push(fifo, bytes, is_sentence);
    }
    return fits;
}

void chip_fifo_push(ChipFifo& fifo, const std::string& bytes, bool is_sentence) {
    fifo.bytes.insert(fifo.bytes.end(), bytes.begin(), bytes.end());
    fifo.pushed += bytes.size();
    if (is_sentence) {
        fifo.sentence_ends.push_back(fifo.pushed);
    }
}

size_t chip_fifo_pop(ChipFifo& fifo, uint8_t* out, size_t length, uint64_t& sentences) {
    const size_t count = std::min(length, chip_fifo_size(fifo));
    std::copy_n(fifo.bytes.begin() + static_cast<std::ptrdiff_t>(fifo.head), count, out);
    fifo.head += count;
    fifo.popped += count;
    sentences = 0;
    while (!fifo.sentence_ends.empty() && fifo.sentence_ends.front() <= fifo.popped) {
        fifo.sentence_ends.pop_front();
        ++sentences;
    }
    compact(fifo);
    return count;
}
