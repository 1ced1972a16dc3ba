# How every library of this project is made and installed.

set(NAX_AEC_SHARED TRUE)
set(NAX_AEC_STATIC TRUE)
if(DEFINED BUILD_SHARED_LIBS)
    if(BUILD_SHARED_LIBS)
        set(NAX_AEC_STATIC FALSE)
    else()
        set(NAX_AEC_SHARED FALSE)
    endif()
endif()

# nax_part(NAME sources...): an object library for nax_library. No exceptions, no RTTI and
# no guarded statics: the libraries need no C++ runtime.
function(nax_part name)
    add_library(${name} OBJECT ${ARGN})
    target_include_directories(${name} PUBLIC src include)
    target_compile_options(${name} PRIVATE
        -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-semantic-interposition)
    # No multiply-add that is fused on one processor and not on the other: the same
    # sound comes out on the workstation and on the device.
    target_compile_options(${name} PRIVATE -ffp-contract=off)
endfunction()

# nax_library(NAME DESCRIPTION text MAP file PARTS object-libraries... HEADERS files...
#             PACKAGES names...)
#
# Makes a library of object libraries: NAME, shared, exporting what the version script MAP
# lists, and NAME_static. BUILD_SHARED_LIBS says which of them is built and installed, both
# when it says nothing, and which one nax_aec::NAME means. PACKAGES are the names of
# nax_package that it is linked with. With NAX_AEC_INSTALL it is installed as part of the
# CMake package nax_aec, with its public headers and NAME.pc.
function(nax_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "DESCRIPTION;MAP" "PARTS;HEADERS;PACKAGES")
    set(objects)
    foreach(part IN LISTS arg_PARTS)
        list(APPEND objects $<TARGET_OBJECTS:${part}>)
    endforeach()
    list(TRANSFORM arg_PACKAGES PREPEND PkgConfig:: OUTPUT_VARIABLE packages)
    set(map ${CMAKE_CURRENT_SOURCE_DIR}/${arg_MAP})

    add_library(${name} SHARED ${objects})
    set_target_properties(${name} PROPERTIES
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} LINK_DEPENDS ${map})
    target_link_options(${name} PRIVATE
        -Wl,--version-script=${map} ${NAX_NO_UNDEFINED} -Wl,--as-needed)
    add_library(${name}_static STATIC ${objects})
    set_target_properties(${name}_static PROPERTIES OUTPUT_NAME ${name})
    foreach(library IN ITEMS ${name} ${name}_static)
        # As C, which keeps the C++ runtime out and lets C programs link the archive.
        set_target_properties(${library} PROPERTIES LINKER_LANGUAGE C EXCLUDE_FROM_ALL TRUE)
        target_include_directories(${library} PUBLIC
            $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
            $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
        target_link_libraries(${library} PRIVATE ${packages} m)
    endforeach()

    set(wanted)
    if(NAX_AEC_STATIC)
        set(wanted ${name}_static)
    endif()
    if(NAX_AEC_SHARED)
        list(PREPEND wanted ${name})
    endif()
    list(GET wanted 0 usual)
    add_library(nax_aec::${name} ALIAS ${usual})
    add_library(nax_aec::${name}_static ALIAS ${name}_static)
    set_target_properties(${wanted} PROPERTIES EXCLUDE_FROM_ALL FALSE)
    if(NAX_AEC_INSTALL)
        install(TARGETS ${wanted} EXPORT nax_aec-targets)
        install(FILES ${arg_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
        nax_install_pkg_config(${name} "${arg_DESCRIPTION}" "${arg_PACKAGES}")
    endif()
endfunction()

# Finds a library by its pkg-config module: PkgConfig::NAME, for us and, with the static
# library, for those who find or include this project.
macro(nax_package name module)
    pkg_check_modules(${name} REQUIRED IMPORTED_TARGET GLOBAL ${module})
    string(APPEND nax_packages "    nax_find(${name} ${module})\n")
endmacro()

# What the static library needs in turn stands as flags in Libs.private: Requires.private
# would ask for the packages of who links the shared one, too.
function(nax_install_pkg_config name description packages)
    set(private_libs)
    foreach(package IN LISTS packages)
        list(APPEND private_libs ${${package}_STATIC_LDFLAGS})
    endforeach()
    list(REMOVE_DUPLICATES private_libs)
    foreach(dir IN LISTS CMAKE_C_IMPLICIT_LINK_DIRECTORIES) # the linker's own
        list(REMOVE_ITEM private_libs -L${dir})
    endforeach()
    list(REMOVE_ITEM private_libs -lm)
    list(APPEND private_libs -lm)
    list(JOIN private_libs " " private_libs)
    if(DEFINED ENV{PKG_CONFIG_SYSROOT_DIR}) # pkg-config puts it in front again
        string(REPLACE "-L$ENV{PKG_CONFIG_SYSROOT_DIR}" "-L" private_libs "${private_libs}")
    endif()
    set(libs "-L\${libdir} -l${name}")
    if(NOT NAX_AEC_SHARED) # all who link it do so statically
        string(APPEND libs " ${private_libs}")
    endif()
    foreach(dir IN ITEMS LIBDIR INCLUDEDIR)
        set(${dir} ${CMAKE_INSTALL_${dir}})
        if(NOT IS_ABSOLUTE "${${dir}}")
            set(${dir} "\${prefix}/${${dir}}")
        endif()
    endforeach()
    set(file ${PROJECT_BINARY_DIR}/${name}.pc)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${file} @ONLY)
    set(destination ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
    install(FILES ${file} DESTINATION ${destination})
    # cmake --install takes another prefix. ${pcfiledir} would follow it as well, but
    # pkg-config 0.29 puts its sysroot in front of that twice.
    if(NOT IS_ABSOLUTE ${destination})
        set(destination "\${CMAKE_INSTALL_PREFIX}/${destination}")
    endif()
    install(CODE "
        file(READ \"${file}\" text)
        string(REGEX REPLACE \"^prefix=[^\\n]*\" \"prefix=\${CMAKE_INSTALL_PREFIX}\" text \"\${text}\")
        file(WRITE \"\$ENV{DESTDIR}${destination}/${name}.pc\" \"\${text}\")")
endfunction()

# The CMake package that all libraries made before are in.
function(nax_install_package)
    if(NOT NAX_AEC_INSTALL)
        return()
    endif()
    include(CMakePackageConfigHelpers)
    set(config ${PROJECT_BINARY_DIR}/nax_aec-config)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/nax_aec-config.cmake.in ${config}.cmake @ONLY)
    write_basic_package_version_file(${config}-version.cmake COMPATIBILITY SameMajorVersion)
    set(destination ${CMAKE_INSTALL_LIBDIR}/cmake/nax_aec)
    install(EXPORT nax_aec-targets NAMESPACE nax_aec:: DESTINATION ${destination})
    install(FILES ${config}.cmake ${config}-version.cmake DESTINATION ${destination})
endfunction()
