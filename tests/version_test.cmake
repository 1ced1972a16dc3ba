# The version stands in the header; everything else must agree with it.
foreach(part IN ITEMS MAJOR MINOR PATCH)
    file(STRINGS ${HEADER} line REGEX "define NAX_AEC_VERSION_${part} ")
    string(REGEX MATCH "[0-9]+$" ${part} "${line}")
endforeach()
set(version ${MAJOR}.${MINOR}.${PATCH})

function(expect what found)
    if(NOT found STREQUAL ARGV2)
        message(SEND_ERROR "${what} is \"${found}\", not \"${ARGV2}\"")
    endif()
endfunction()

if(NOT version MATCHES "^[0-9]+\\.[0-9]+\\.[0-9]+$")
    message(SEND_ERROR "no version in ${HEADER}: \"${version}\"")
endif()
expect("the project's version" "${PROJECT_VERSION}" ${version})

file(STRINGS ${PKG_CONFIG_FILE} line REGEX "^Version: ")
expect("the pkg-config file's version line" "${line}" "Version: ${version}")

execute_process(COMMAND ${READELF} -d ${LIBRARY} OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCH "SONAME\\)[^[]*\\[([^]]*)" ignored "${dynamic}")
expect("the shared library's SONAME" "${CMAKE_MATCH_1}" libnax_aec.so.${MAJOR})

get_filename_component(file ${LIBRARY} NAME)
expect("the shared library's file name" "${file}" libnax_aec.so.${version})
