set(cross_arch armhf)
set(cross_triplet arm-linux-gnueabihf)
set(cross_processor armv7l)
set(cross_emulator arm)
# No notes on an order of arguments that changed in gcc 7.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include("${CMAKE_CURRENT_LIST_DIR}/cross.cmake")
