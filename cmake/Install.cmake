# Where `cmake --install` puts each deliverable, in the GNUInstallDirs layout (on Debian with
# prefix /usr, CMAKE_INSTALL_LIBDIR is lib/<multiarch>):
#   lib/<multiarch>/modemloader/features/libmodemloader.so   the plug-in, found by path
#   lib/<multiarch>/libhostservices.so.<SOVERSION>            the host services
#   bin/modemloader-host, bin/modem-sim                       the programs
#   include/modemloader-platform/                             the host-service headers
#   lib/<multiarch>/cmake/ModemLoaderPlatform/, lib/<multiarch>/pkgconfig/   the SDK
#   lib/<multiarch>/modem-sim/libfdtexport_interposer.so      the device-tree stand-in
#   share/modem-sim/fdtexport/*.dtb                           the blobs it can stand for
#   share/mender/modules/v3/modem-firmware, /etc/mender/modem-firmware.conf   the Mender module
#   share/doc/modemloader/, share/man/man1/                   documents and manual pages
# Components: plugin, runtime (libhostservices), host, emulator, sdk, doc, mender.
include(GNUInstallDirs)

set(MODEMLOADER_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/modemloader-platform)
set(MODEMLOADER_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ModemLoaderPlatform)
set(MODEMLOADER_INSTALL_FEATUREDIR ${CMAKE_INSTALL_LIBDIR}/modemloader/features)

# Under /usr the dynamic loader finds libhostservices by itself and Debian's packages carry no run
# path; under any other prefix the installed programs look for it relative to bin/. (A plug-in
# needs none: the host that loads it has libhostservices loaded already.)
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endif()

# libhostservices' ABI version: raise the SOVERSION whenever a header of platform/include changes
# a virtual table, a record or a signature that a built plug-in depends on.
set(MODEMLOADER_HOSTSERVICES_SOVERSION 0)
set(MODEMLOADER_HOSTSERVICES_VERSION ${PROJECT_VERSION}.0)

# Manual pages of the programs, made at build time by help2man from their own --help, so they
# never drift from it. Off without help2man and in instrumented builds (both are for tests only,
# and in the coverage build help2man's runs of --help would count as covered lines); the packages
# turn it on.
find_program(HELP2MAN_EXECUTABLE help2man)
if(HELP2MAN_EXECUTABLE AND MODEMLOADER_SANITIZER STREQUAL "" AND NOT MODEMLOADER_COVERAGE)
    set(man_pages_default ON)
else()
    set(man_pages_default OFF)
endif()
option(MODEMLOADER_MAN_PAGES "Make and install the programs' manual pages with help2man"
       ${man_pages_default})
if(MODEMLOADER_MAN_PAGES AND NOT HELP2MAN_EXECUTABLE)
    message(FATAL_ERROR "MODEMLOADER_MAN_PAGES needs help2man (Debian package help2man)")
endif()

# modemloader_man_page(TARGET DESCRIPTION COMPONENT): section 1 page of program TARGET from its
# --help, installed with COMPONENT.
function(modemloader_man_page target description component)
    if(NOT MODEMLOADER_MAN_PAGES)
        return()
    endif()
    if(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
        message(STATUS "no manual page for ${target}: it cannot run on this machine")
        return()
    endif()
    set(page ${CMAKE_CURRENT_BINARY_DIR}/${target}.1)
    # help2man runs its argument through the shell: a cross build runs the program in its
    # emulator.
    set(program $<TARGET_FILE:${target}>)
    if(CMAKE_CROSSCOMPILING_EMULATOR)
        list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
        set(program "${emulator} ${program}")
    endif()
    # Sections that --help does not carry (SEE ALSO) come from <target>.h2m beside the sources.
    set(include_options)
    set(include_file ${CMAKE_CURRENT_SOURCE_DIR}/${target}.h2m)
    if(EXISTS ${include_file})
        set(include_options --include=${include_file})
    else()
        set(include_file)
    endif()
    add_custom_command(OUTPUT ${page}
        COMMAND ${HELP2MAN_EXECUTABLE} --no-info --no-discard-stderr --section=1
                --version-string=${PROJECT_VERSION} --name=${description}
                ${include_options} --output=${page}
                ${program}
        DEPENDS ${target} ${include_file}
        COMMENT "help2man ${target}"
        VERBATIM)
    add_custom_target(${target}_man_page ALL DEPENDS ${page})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
endfunction()
