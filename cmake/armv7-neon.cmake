# Cortex-A7 class: NEON and fused multiply-add everywhere.
include(${CMAKE_CURRENT_LIST_DIR}/armv7.cmake)
set(CMAKE_C_FLAGS_INIT "-mcpu=cortex-a7 -mfpu=neon-vfpv4 -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT ${CMAKE_C_FLAGS_INIT})
