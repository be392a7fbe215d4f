# MODEMLOADER_SANITIZER selects an instrumented build: "address" (AddressSanitizer together with
# UndefinedBehaviorSanitizer), "thread" (ThreadSanitizer) or "fuzzer" (clang only: every object
# carries libFuzzer's coverage besides AddressSanitizer and UBSan, so the fuzz targets in
# tests/fuzz see the plug-in's and the host's branches). Empty builds without instrumentation.
set(MODEMLOADER_SANITIZER "" CACHE STRING "address, thread, fuzzer or empty")

if(MODEMLOADER_SANITIZER STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(MODEMLOADER_SANITIZER STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(MODEMLOADER_SANITIZER STREQUAL "fuzzer")
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "MODEMLOADER_SANITIZER=fuzzer needs clang (libFuzzer)")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined
                        -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(NOT MODEMLOADER_SANITIZER STREQUAL "")
    message(FATAL_ERROR "MODEMLOADER_SANITIZER must be address, thread, fuzzer or empty")
endif()
