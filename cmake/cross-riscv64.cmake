set(cross_arch riscv64)
set(cross_triplet riscv64-linux-gnu)
set(cross_processor riscv64)
set(cross_emulator riscv64)
# The compiler calls the library for words of one byte; versions from 13 on do not.
set(CMAKE_CXX_STANDARD_LIBRARIES "-Wl,--as-needed -latomic")
# g++ 12 takes values of optionals for uninitialized here.
set(CMAKE_CXX_FLAGS_INIT -Wno-maybe-uninitialized)
# Libraries of a later release want a later C library, which is there when the programs run.
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,--allow-shlib-undefined)
include("${CMAKE_CURRENT_LIST_DIR}/cross.cmake")
