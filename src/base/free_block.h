// Deleter of a block from malloc, for std::unique_ptr.
#ifndef TAVOR_FREE_BLOCK_H
#define TAVOR_FREE_BLOCK_H

#include <cstdlib>

struct FreeBlock {
    void operator()(void* block) const {
        free(block);
    }
};

#endif
