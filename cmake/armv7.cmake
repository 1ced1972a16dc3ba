# 32-bit ARM with hard float, Debian's baseline: VFPv3 with 16 double registers, no NEON.
# Vector code is compiled file by file and chosen at run time.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(nax_architecture armhf)
set(nax_triplet arm-linux-gnueabihf)
set(nax_emulator qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
set(CMAKE_C_FLAGS_INIT "-march=armv7-a+fp -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT ${CMAKE_C_FLAGS_INIT})
