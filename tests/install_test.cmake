# Installs into a scratch tree, then builds and runs a small C program against it in
# each of the ways that an application has: CMake's find_package with the shared and
# the static library, and pkg-config with both.
file(REMOVE_RECURSE ${SCRATCH})
file(MAKE_DIRECTORY ${SCRATCH})

function(run)
    execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${ARGV}\nreturned ${result}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

set(root ${SCRATCH}/root)
set(ENV{DESTDIR} ${root})
run(${CMAKE_COMMAND} --install ${BUILD})
unset(ENV{DESTDIR})
foreach(file IN ITEMS nax_aec.h nax_aec_dump.h)
    if(NOT EXISTS ${root}${PREFIX}/include/${file})
        message(FATAL_ERROR "${file} was not installed")
    endif()
endforeach()
set(libraries ${root}${PREFIX}/${LIBDIR})

run(${CMAKE_COMMAND} -S ${CONSUMER} -B ${SCRATCH}/consumer -G ${GENERATOR}
    -D CMAKE_C_COMPILER=${C_COMPILER} -D CMAKE_PREFIX_PATH=${root}${PREFIX})
run(${CMAKE_COMMAND} --build ${SCRATCH}/consumer)
run(${SCRATCH}/consumer/consumer)
run(${SCRATCH}/consumer/consumer_static)

set(ENV{PKG_CONFIG_PATH} ${libraries}/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${root})
run(${PKG_CONFIG} --cflags --libs nax_aec)
separate_arguments(flags UNIX_COMMAND "${output}")
run(${C_COMPILER} ${CONSUMER}/consumer.c -o ${SCRATCH}/by_pkg_config ${flags})
set(ENV{LD_LIBRARY_PATH} ${libraries})
run(${SCRATCH}/by_pkg_config)
unset(ENV{LD_LIBRARY_PATH})

# The static library: the same flags with what it needs in turn, and the archive
# named, because the linker prefers the shared one.
run(${PKG_CONFIG} --static --cflags --libs nax_aec)
string(REPLACE "-lnax_aec" "-l:libnax_aec.a" output "${output}")
separate_arguments(flags UNIX_COMMAND "${output}")
run(${C_COMPILER} ${CONSUMER}/consumer.c -o ${SCRATCH}/by_pkg_config_static ${flags})
run(${SCRATCH}/by_pkg_config_static)
