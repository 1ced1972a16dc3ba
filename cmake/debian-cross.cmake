# Another processor's Linux device by Debian's cross-compiler, over a sysroot of Debian's
# libraries for it that scripts/setup makes (scripts/sysroot). The toolchain file says before
# which: nax_architecture by Debian's name, nax_triplet, nax_emulator. Tests run in the
# emulator; which processor it pretends to be is said by QEMU_CPU, see the test presets.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${nax_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${nax_triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${nax_triplet})

if(DEFINED ENV{NAX_AEC_SYSROOT})
    set(CMAKE_SYSROOT $ENV{NAX_AEC_SYSROOT})
elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(CMAKE_SYSROOT $ENV{XDG_CACHE_HOME}/nax_aec/${nax_architecture}-sysroot)
else()
    set(CMAKE_SYSROOT $ENV{HOME}/.cache/nax_aec/${nax_architecture}-sysroot)
endif()
if(NOT EXISTS ${CMAKE_SYSROOT}/usr/include)
    message(FATAL_ERROR "${CMAKE_SYSROOT} holds no libraries: run scripts/sysroot ${nax_architecture}")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/${nax_triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR ${nax_emulator} -L ${CMAKE_SYSROOT})
