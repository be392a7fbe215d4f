# modemloader_add_subdirectories(FOLDER... [EXCEPT FOLDER...])
# Adds the listed folders of the current source folder, in the order given, but those also named
# after EXCEPT (folders this configuration does not build, such as the end-to-end tests of a
# cross build). The list is the build's; a folder with a CMakeLists.txt that is not listed stops
# the configuration, so that a new folder cannot be left out of the build unnoticed.
function(modemloader_add_subdirectories)
    cmake_parse_arguments(PARSE_ARGV 0 ARG "" "" "EXCEPT")
    set(listed ${ARG_UNPARSED_ARGUMENTS})
    foreach(folder ${listed})
        if(NOT folder IN_LIST ARG_EXCEPT)
            add_subdirectory(${folder})
        endif()
    endforeach()
    file(GLOB_RECURSE present RELATIVE ${CMAKE_CURRENT_SOURCE_DIR}
         ${CMAKE_CURRENT_SOURCE_DIR}/*/CMakeLists.txt)
    foreach(file ${present})
        get_filename_component(folder ${file} DIRECTORY)
        set(covered FALSE)
        foreach(known ${listed})
            if(folder STREQUAL known OR folder MATCHES "^${known}/")
                set(covered TRUE)
            endif()
        endforeach()
        if(NOT covered)
            message(FATAL_ERROR "${CMAKE_CURRENT_SOURCE_DIR}/${folder} has a CMakeLists.txt but "
                                "is not listed in ${CMAKE_CURRENT_LIST_FILE}")
        endif()
    endforeach()
endfunction()
