# 32-bit ARM Linux with hard-float, the in-car unit's target, from Debian's cross compiler
# (g++-arm-linux-gnueabihf). Libraries come from the armhf packages of this machine's multiarch
# tree (/usr/lib/arm-linux-gnueabihf); headers that are the same on every architecture
# (nlohmann-json, libfdt) come from /usr/include. Test programs run under qemu-arm-static.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

find_program(MODEMLOADER_CROSS_CXX arm-linux-gnueabihf-g++)
find_program(MODEMLOADER_CROSS_CC arm-linux-gnueabihf-gcc)
if(NOT MODEMLOADER_CROSS_CXX OR NOT MODEMLOADER_CROSS_CC)
    message(FATAL_ERROR "armhf: no arm-linux-gnueabihf-g++/gcc in PATH "
                        "(Debian package g++-arm-linux-gnueabihf)")
endif()
set(CMAKE_C_COMPILER ${MODEMLOADER_CROSS_CC})
set(CMAKE_CXX_COMPILER ${MODEMLOADER_CROSS_CXX})

# No -L prefix: with libc6:armhf installed the guest's loader and libraries are found at their
# multiarch paths, and a prefix whose loader does not match the libraries crashes every program
# that starts a thread.
find_program(MODEMLOADER_QEMU_ARM qemu-arm-static)
if(NOT MODEMLOADER_QEMU_ARM)
    message(FATAL_ERROR "armhf: no qemu-arm-static in PATH to run the tests "
                        "(Debian package qemu-user-static)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${MODEMLOADER_QEMU_ARM})

# pkg-config answers with the armhf .pc files only.
set(ENV{PKG_CONFIG_LIBDIR}
    "/usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig")

# Programs (dtc, ninja) are this machine's; libraries are searched in the armhf tree only, so a
# missing armhf package fails the configure instead of linking an x86-64 library.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
