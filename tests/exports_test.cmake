# Reads a built shared library: EXPORTED is what it exports, as letter:name of nm, and
# besides NEEDED it needs nothing but the C library.
execute_process(COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY}
    OUTPUT_VARIABLE symbols)
string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
set(exported)
foreach(line IN LISTS lines)
    string(REGEX MATCH "^([^ @]+)[^ ]* ([A-Za-z])" ignored "${line}")
    if(NOT CMAKE_MATCH_2 STREQUAL "A") # the version node itself
        list(APPEND exported "${CMAKE_MATCH_2}:${CMAKE_MATCH_1}")
    endif()
endforeach()
list(SORT exported)
if(NOT exported STREQUAL EXPORTED)
    message(SEND_ERROR "exported: ${exported}\nexpected: ${EXPORTED}")
endif()

execute_process(COMMAND ${READELF} -d ${LIBRARY} OUTPUT_VARIABLE dynamic)
string(REGEX MATCHALL "NEEDED\\)[^\n]*" lines "${dynamic}")
list(REMOVE_ITEM NEEDED "")
foreach(library IN LISTS NEEDED)
    if(NOT lines MATCHES "\\[lib${library}\\.so")
        message(SEND_ERROR "lib${library} is not needed: ${lines}")
    endif()
endforeach()
list(JOIN NEEDED "|" needed)
# The loader is a part of the C library: it holds __tls_get_addr, which finds a thread's own
# variables, and on ARM the stack protector's word.
foreach(line IN LISTS lines)
    if(NOT line MATCHES "\\[(lib(${needed}|m|c)|ld-linux-[a-z0-9-]+)\\.so\\.[0-9]+\\]")
        message(SEND_ERROR "needed, but should not be: ${line}")
    endif()
endforeach()
