# A 32-bit ARM Linux device, hard float, over a sysroot of Debian's armhf libraries that
# `scripts/setup --armv7` makes. Tests run in the emulator; which processor it
# pretends to be is said by QEMU_CPU, see the test presets.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(DEFINED ENV{NAX_AEC_ARMHF_SYSROOT})
    set(CMAKE_SYSROOT $ENV{NAX_AEC_ARMHF_SYSROOT})
elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(CMAKE_SYSROOT $ENV{XDG_CACHE_HOME}/nax_aec/armhf-sysroot)
else()
    set(CMAKE_SYSROOT $ENV{HOME}/.cache/nax_aec/armhf-sysroot)
endif()
if(NOT EXISTS ${CMAKE_SYSROOT}/usr/include)
    message(FATAL_ERROR "${CMAKE_SYSROOT} holds no libraries: run scripts/setup --armv7")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${CMAKE_SYSROOT})
