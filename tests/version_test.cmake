# The version stands in the header; everything else must agree with it.
foreach(part IN ITEMS MAJOR MINOR PATCH)
    file(STRINGS ${SOURCE}/include/nax_aec.h line REGEX "define NAX_AEC_VERSION_${part} ")
    string(REGEX MATCH "VERSION_${part} +([0-9]+)" ignored "${line}")
    set(${part} ${CMAKE_MATCH_1})
endforeach()
set(version ${MAJOR}.${MINOR}.${PATCH})

function(expect what found)
    if(NOT found STREQUAL ARGV2)
        message(SEND_ERROR "${what} is \"${found}\", not \"${ARGV2}\"")
    endif()
endfunction()

# Sets line to the first line of file that matches.
function(first_line file regex)
    file(STRINGS ${SOURCE}/${file} lines REGEX "${regex}")
    list(APPEND lines "no line")
    list(GET lines 0 line)
    set(line "${line}" PARENT_SCOPE)
endfunction()

if(NOT version MATCHES "^[0-9]+\\.[0-9]+\\.[0-9]+$")
    message(SEND_ERROR "no version in the header: \"${version}\"")
endif()
expect("the project's version" "${PROJECT_VERSION}" ${version})

file(STRINGS ${PKG_CONFIG_FILE} line REGEX "^Version: ")
expect("the pkg-config file's version line" "${line}" "Version: ${version}")

execute_process(COMMAND ${READELF} -d ${LIBRARY} OUTPUT_VARIABLE dynamic)
string(REGEX MATCH "SONAME\\)[^[]*\\[([^]]*)" ignored "${dynamic}")
expect("the shared library's SONAME" "${CMAKE_MATCH_1}" libnax_aec.so.${MAJOR})

get_filename_component(file ${LIBRARY} NAME)
expect("the shared library's file name" "${file}" libnax_aec.so.${version})

first_line(src/nax_aec.map "{")
expect("the symbols' version" "${line}" "NAX_AEC_${MAJOR} {")

first_line(python/nax_aec/__init__.py "^__version__ ")
expect("the Python package's version line" "${line}" "__version__ = \"${version}\"")

# The newest entry stands first in both.
first_line(CHANGELOG.md "^## ")
string(REGEX MATCH "[0-9][^] ]*" number "${line}")
expect("the newest version in CHANGELOG.md" "${number}" ${version})

first_line(debian/changelog "^nax-aec ")
string(REGEX MATCH "\\(([^)]*)\\)" ignored "${line}")
expect("the newest version in debian/changelog" "${CMAKE_MATCH_1}" ${version})

first_line(debian/control "^Package: libnax-aec")
expect("the library's package" "${line}" "Package: libnax-aec${MAJOR}")

first_line(debian/libnax-aec${MAJOR}.symbols "^libnax_aec")
expect("the first symbols line" "${line}" "libnax_aec.so.${MAJOR} libnax-aec${MAJOR} #MINVER#")
