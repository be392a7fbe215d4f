# What differs when the build is for another machine (the armhf preset): programs that the tests
# start as children run under the cross-compiling emulator, and the end-to-end tests, which need
# this machine's modem emulator and loop devices, are driven from a native build instead.

# modemloader_runnable(VARIABLE TARGET): a path that starts TARGET. Natively the program itself;
# when cross-compiling a small script that runs it under CMAKE_CROSSCOMPILING_EMULATOR, because
# without binfmt_misc the kernel cannot start an ARM program that a test exec()s.
function(modemloader_runnable variable target)
    if(NOT CMAKE_CROSSCOMPILING OR NOT CMAKE_CROSSCOMPILING_EMULATOR)
        set(${variable} "$<TARGET_FILE:${target}>" PARENT_SCOPE)
        return()
    endif()
    set(wrapper ${CMAKE_BINARY_DIR}/emulated/${target})
    get_property(made GLOBAL PROPERTY MODEMLOADER_RUNNABLE_${target})
    if(NOT made)
        list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
        file(GENERATE OUTPUT ${wrapper}
             CONTENT "#!/bin/sh\nexec ${emulator} $<TARGET_FILE:${target}> \"$@\"\n"
             FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                              WORLD_READ WORLD_EXECUTE)
        set_property(GLOBAL PROPERTY MODEMLOADER_RUNNABLE_${target} TRUE)
    endif()
    set(${variable} ${wrapper} PARENT_SCOPE)
endfunction()
