// The transmit buffer: bytes in order, with marks where sentences end.
#ifndef TAVOR_BOARD_CHIP_FIFO_H
#define TAVOR_BOARD_CHIP_FIFO_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

struct ChipFifo {
    size_t limit = 0;           // bytes that chip_fifo_offer fills it to
    std::vector<uint8_t> bytes; // from head on; what lies before has been read
    size_t head = 0;
    std::deque<uint64_t> sentence_ends; // counted in bytes since the start
    uint64_t pushed = 0;
    uint64_t popped = 0;
};

size_t chip_fifo_size(const ChipFifo& fifo);

void chip_fifo_clear(ChipFifo& fifo);

// Appends the bytes; is_sentence marks their end for the count that chip_fifo_pop returns.
void chip_fifo_push(ChipFifo& fifo, const std::string& bytes, bool is_sentence);

// The same when it has room for all of it, else nothing. Returns whether it had.
bool chip_fifo_offer(ChipFifo& fifo, const std::string& bytes, bool is_sentence = false);

// Moves up to length bytes to out; fewer when there are fewer. sentences: how many sentence ends were among
// them. Returns the bytes moved.
size_t chip_fifo_pop(ChipFifo& fifo, uint8_t* out, size_t length, uint64_t& sentences);

#endif
