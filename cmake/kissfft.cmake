# nax_kissfft, to compile and link with: the installed library, or the sources in
# NAX_AEC_KISSFFT_SOURCE. NAX_KISSFFT_PARTS and NAX_KISSFFT_PACKAGES are what nax_library
# takes for either.
add_library(nax_kissfft INTERFACE)
if(NOT NAX_AEC_KISSFFT_SOURCE)
    pkg_check_modules(kissfft QUIET kissfft-float)
    if(NOT kissfft_FOUND)
        message(FATAL_ERROR "pkg-config does not find kissfft-float. Install it (Debian: "
            "libkissfft-dev), or unpack kissfft's sources and name their folder by "
            "-D NAX_AEC_KISSFFT_SOURCE=FOLDER.")
    endif()
    nax_package(kissfft kissfft-float)
    target_link_libraries(nax_kissfft INTERFACE PkgConfig::kissfft)
    set(NAX_KISSFFT_PACKAGES kissfft)
    return()
endif()

get_filename_component(folder ${NAX_AEC_KISSFFT_SOURCE} ABSOLUTE BASE_DIR ${CMAKE_SOURCE_DIR})
set(real_folder ${folder})
if(EXISTS ${folder}/tools/kiss_fftr.c) # before version 131
    set(real_folder ${folder}/tools)
endif()
if(NOT EXISTS ${folder}/kiss_fft.c OR NOT EXISTS ${real_folder}/kiss_fftr.c)
    message(FATAL_ERROR "NAX_AEC_KISSFFT_SOURCE: no kiss_fft.c and kiss_fftr.c in ${folder}")
endif()
add_library(nax_kissfft_source STATIC ${folder}/kiss_fft.c ${real_folder}/kiss_fftr.c)
target_compile_options(nax_kissfft_source PRIVATE -w -ffp-contract=off)
target_include_directories(nax_kissfft_source SYSTEM PUBLIC ${folder} ${real_folder})
target_compile_definitions(nax_kissfft_source PUBLIC kiss_fft_scalar=float)
# An application may have a kissfft of its own, of another sample type.
foreach(name IN ITEMS kiss_fft kiss_fft_alloc kiss_fft_cleanup kiss_fft_next_fast_size
                      kiss_fft_stride kiss_fftr kiss_fftr_alloc kiss_fftri)
    target_compile_definitions(nax_kissfft_source PUBLIC ${name}=nax_${name})
endforeach()
target_link_libraries(nax_kissfft INTERFACE nax_kissfft_source)
set(NAX_KISSFFT_PARTS nax_kissfft_source)
