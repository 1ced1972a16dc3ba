# Builds and runs a small C program over the library in each of the ways that an
# application has: installed and found by CMake or pkg-config, or built with it from the
# sources.
cmake_minimum_required(VERSION 3.16)
file(REMOVE_RECURSE ${SCRATCH})
file(MAKE_DIRECTORY ${SCRATCH})
set(ENV{CMAKE_GENERATOR} ${GENERATOR})
set(ENV{CMAKE_BUILD_TYPE} Debug)

function(run)
    execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${ARGV}\nreturned ${result}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

# Builds the program in a folder NAME by CMake, with the options that follow.
function(build name)
    run(${CMAKE_COMMAND} -S ${CONSUMER} -B ${SCRATCH}/${name} -D CMAKE_C_COMPILER=${C_COMPILER}
        -D CMAKE_BUILD_TYPE=Debug ${ARGN})
    run(${CMAKE_COMMAND} --build ${SCRATCH}/${name})
    run(${SCRATCH}/${name}/consumer)
endfunction()

# Compiles and runs the program with what pkg-config says when it is given the options.
function(compile)
    run(${PKG_CONFIG} ${ARGN} --cflags --libs nax_aec)
    # The archive is named, because the linker prefers the shared library.
    if("--static" IN_LIST ARGN)
        string(REPLACE "-lnax_aec" "-l:libnax_aec.a" output "${output}")
    endif()
    separate_arguments(flags UNIX_COMMAND "${output}")
    run(${C_COMPILER} ${CONSUMER}/consumer.c -o ${SCRATCH}/compiled ${flags} ${link})
    run(${SCRATCH}/compiled)
endfunction()

function(expect what found)
    if(NOT "${found}" STREQUAL "${ARGV2}")
        message(SEND_ERROR "${what} is \"${found}\", not \"${ARGV2}\"")
    endif()
endfunction()

# Installed below a folder that is not its prefix, as a packager does, and found there.
set(root ${SCRATCH}/root)
set(ENV{DESTDIR} ${root})
run(${CMAKE_COMMAND} --install ${BUILD})
unset(ENV{DESTDIR})
foreach(file IN ITEMS nax_aec.h nax_aec_dump.h nax_meter.h nax_res.h)
    if(NOT EXISTS ${root}${PREFIX}/include/${file})
        message(SEND_ERROR "${file} was not installed")
    endif()
endforeach()
build(staged -D CMAKE_PREFIX_PATH=${root}${PREFIX})
run(${SCRATCH}/staged/consumer_static)
set(ENV{PKG_CONFIG_PATH} ${root}${PREFIX}/${LIBDIR}/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${root})
set(ENV{LD_LIBRARY_PATH} ${root}${PREFIX}/${LIBDIR})
compile()
compile(--static)
unset(ENV{PKG_CONFIG_SYSROOT_DIR})

# Installed under another prefix than the configured one.
set(elsewhere ${SCRATCH}/elsewhere)
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${elsewhere})
if(EXISTS ${elsewhere}/bin/cancel_wav)
    run(${elsewhere}/bin/cancel_wav --version)
endif()
# A recording of noise and its echo, which diagnose_wav runs through the library.
execute_process(COMMAND ${PYTHON} -c "import numpy" RESULT_VARIABLE no_numpy ERROR_QUIET)
if(EXISTS ${elsewhere}/bin/diagnose_wav AND no_numpy EQUAL 0)
    file(WRITE ${SCRATCH}/call.py "import array, random, wave
x = random.Random(1).choices(range(-9000, 9000), k=40000)
y = [0] * 400 + [v // 2 for v in x[:-400]]
with wave.open('${SCRATCH}/call.wav', 'wb') as file:
    file.setparams((2, 2, 8000, 0, 'NONE', ''))
    file.writeframes(array.array('h', [v for pair in zip(y, x) for v in pair]).tobytes())
")
    run(${PYTHON} ${SCRATCH}/call.py)
    execute_process(COMMAND env -u NAX_AEC_LIBRARY -u PYTHONPATH ${elsewhere}/bin/diagnose_wav ${SCRATCH}/call.wav
        OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT output MATCHES "Library:  applied")
        message(SEND_ERROR "diagnose_wav as installed does not run the library: ${output}")
    endif()
endif()
build(elsewhere_found -D nax_aec_ROOT=${elsewhere})
run(${SCRATCH}/elsewhere_found/consumer_static)
set(ENV{PKG_CONFIG_PATH} ${elsewhere}/${LIBDIR}/pkgconfig)
set(ENV{LD_LIBRARY_PATH} ${elsewhere}/${LIBDIR})
compile()
compile(--static)

# Who links the shared library needs nothing but it, not even other .pc files.
set(ENV{PKG_CONFIG_LIBDIR} ${elsewhere}/${LIBDIR}/pkgconfig)
unset(ENV{PKG_CONFIG_PATH})
run(${PKG_CONFIG} --cflags --libs nax_aec)
string(STRIP "${output}" output)
expect("what pkg-config says" "${output}"
    "-I${elsewhere}/include -L${elsewhere}/${LIBDIR} -lnax_aec")
compile()
build(alone -D nax_aec_ROOT=${elsewhere} -D STATIC=OFF)
unset(ENV{PKG_CONFIG_LIBDIR})
unset(ENV{LD_LIBRARY_PATH})

# As part of another project, which installs its own program alone.
build(part -D HOW=add_subdirectory -D SOURCE=${SOURCE} -D BUILD_SHARED_LIBS=ON -D STATIC=OFF
    -D NAX_AEC_KISSFFT_SOURCE=${KISSFFT_SOURCE})
run(${CMAKE_COMMAND} --install ${SCRATCH}/part --prefix ${SCRATCH}/part_installed)
file(GLOB_RECURSE installed RELATIVE ${SCRATCH}/part_installed ${SCRATCH}/part_installed/*)
expect("what is installed" "${installed}" bin/consumer)
file(GLOB_RECURSE built RELATIVE ${SCRATCH}/part ${SCRATCH}/part/*.so ${SCRATCH}/part/*.a
    ${SCRATCH}/part/*_test)
list(FILTER built EXCLUDE REGEX kissfft_source)
expect("what is built" "${built}" 
    "nax_aec/libnax_aec.so;nax_aec/libnax_meter.so;nax_aec/libnax_res.so")

# Fetched and installed, into folders that are not below the prefix; static, and with
# kissfft compiled in: one that never has memory.
set(kissfft ${SCRATCH}/kissfft)
set(headers ${KISSFFT_SOURCE})
if(NOT headers)
    run(${PKG_CONFIG} --variable=includedir kissfft-float)
    string(STRIP "${output}" headers)
    string(APPEND headers /kissfft)
endif()
file(GLOB headers ${headers}/*.h)
file(COPY ${headers} DESTINATION ${kissfft})
file(WRITE ${kissfft}/kiss_fft.c "")
file(WRITE ${kissfft}/kiss_fftr.c "#include <kiss_fftr.h>
    kiss_fftr_cfg kiss_fftr_alloc(int n, int inverse, void *at, size_t *size) { return NULL; }
    void kiss_fftr(kiss_fftr_cfg cfg, const kiss_fft_scalar *in, kiss_fft_cpx *out) {}
    void kiss_fftri(kiss_fftr_cfg cfg, const kiss_fft_cpx *in, kiss_fft_scalar *out) {}")
build(fetched -D HOW=FetchContent -D SOURCE=${SOURCE} -D BUILD_SHARED_LIBS=OFF
    -D NAX_AEC_INSTALL=ON -D NAX_AEC_KISSFFT_SOURCE=${kissfft}
    -D CMAKE_INSTALL_LIBDIR=${SCRATCH}/far/lib -D CMAKE_INSTALL_INCLUDEDIR=${SCRATCH}/far/headers)
run(${CMAKE_COMMAND} --install ${SCRATCH}/fetched --prefix ${SCRATCH}/fetched_installed)
set(ENV{PKG_CONFIG_PATH} ${SCRATCH}/far/lib/pkgconfig)
set(link -static)
compile()
build(far_found -D nax_aec_DIR=${SCRATCH}/far/lib/cmake/nax_aec -D WHOLLY_STATIC=ON)
run(${NM} --defined-only ${SCRATCH}/far/lib/libnax_aec.a)
if(NOT output MATCHES " nax_kiss_fftr\n" OR output MATCHES " kiss_fft")
    message(SEND_ERROR "kissfft is not kept private: ${output}")
endif()
