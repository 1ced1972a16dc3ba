# Reads the built shared library: five functions and two variables are exported, and
# no library is needed beyond the C library and the two of signal processing.
execute_process(COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY}
    OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
set(exported)
foreach(line IN LISTS lines)
    string(REGEX MATCH "^([^ @]+)[^ ]* ([A-Za-z])" ignored "${line}")
    if(NOT CMAKE_MATCH_2 STREQUAL "A") # the version node itself
        list(APPEND exported "${CMAKE_MATCH_2} ${CMAKE_MATCH_1}")
    endif()
endforeach()
list(SORT exported)
set(expected
    "B aec_out"
    "B echo_out"
    "T nax_aec_byte"
    "T nax_aec_param_printf"
    "T nax_aec_short"
    "T nax_aec_state_destroy"
    "T nax_aec_state_init")
if(NOT exported STREQUAL expected)
    message(SEND_ERROR "exported: ${exported}\nexpected: ${expected}")
endif()

execute_process(COMMAND ${READELF} -d ${LIBRARY} OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "NEEDED\\)[^\n]*" lines "${dynamic}")
if(NOT lines MATCHES "libspeexdsp")
    message(SEND_ERROR "libspeexdsp is not needed, so nothing cancels: ${lines}")
endif()
# On ARM the stack protector's word is kept by the loader.
foreach(line IN LISTS lines)
    if(NOT line MATCHES "\\[(lib(speexdsp|kissfft-float|m|c)|ld-linux-armhf)\\.so\\.[0-9]+\\]")
        message(SEND_ERROR "needed, but should not be: ${line}")
    endif()
endforeach()
