# MODEMLOADER_SANITIZER selects an instrumented build: "address" (AddressSanitizer together with
# UndefinedBehaviorSanitizer) or "thread" (ThreadSanitizer). Empty builds without instrumentation.
set(MODEMLOADER_SANITIZER "" CACHE STRING "address, thread or empty")

if(MODEMLOADER_SANITIZER STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(MODEMLOADER_SANITIZER STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(NOT MODEMLOADER_SANITIZER STREQUAL "")
    message(FATAL_ERROR "MODEMLOADER_SANITIZER must be address, thread or empty")
endif()
