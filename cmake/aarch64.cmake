# 64-bit ARM, whose every processor has NEON.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(nax_architecture arm64)
set(nax_triplet aarch64-linux-gnu)
set(nax_emulator qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
