# modemloader_add_subdirectories(FOLDER...)
# Adds the listed folders of the current source folder, in the order given. The list is the
# build's; a folder with a CMakeLists.txt that is not listed stops the configuration, so that a
# new folder cannot be left out of the build unnoticed.
function(modemloader_add_subdirectories)
    foreach(folder ${ARGN})
        add_subdirectory(${folder})
    endforeach()
    file(GLOB_RECURSE present RELATIVE ${CMAKE_CURRENT_SOURCE_DIR}
         ${CMAKE_CURRENT_SOURCE_DIR}/*/CMakeLists.txt)
    foreach(file ${present})
        get_filename_component(folder ${file} DIRECTORY)
        set(covered FALSE)
        foreach(listed ${ARGN})
            if(folder STREQUAL listed OR folder MATCHES "^${listed}/")
                set(covered TRUE)
            endif()
        endforeach()
        if(NOT covered)
            message(FATAL_ERROR "${CMAKE_CURRENT_SOURCE_DIR}/${folder} has a CMakeLists.txt but "
                                "is not listed in ${CMAKE_CURRENT_LIST_FILE}")
        endif()
    endforeach()
endfunction()
