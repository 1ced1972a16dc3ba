include(${CMAKE_CURRENT_LIST_DIR}/nax_aec-targets.cmake)
