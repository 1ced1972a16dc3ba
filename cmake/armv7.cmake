# Debian's baseline: VFPv3 with 16 double registers, no NEON. Vector code is compiled
# file by file and chosen at run time.
include(${CMAKE_CURRENT_LIST_DIR}/armv7-common.cmake)
set(CMAKE_C_FLAGS_INIT "-march=armv7-a+fp -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a+fp -mfloat-abi=hard")
