# Warnings that every target of ours compiles with, as the interface target modemloader::warnings
# that the top-level CMakeLists.txt links into every target. Each one has caught a real class of
# bug in code like this: byte protocols, casts between record layouts, members hiding each other.
add_library(modemloader_warnings INTERFACE)
add_library(modemloader::warnings ALIAS modemloader_warnings)
target_compile_options(modemloader_warnings INTERFACE
    -Wall                # the common set
    -Wextra              # unused parameters, sign comparisons in byte counts
    -Werror              # a warning left in is a bug left in
    -Wshadow             # a local hiding a member (m_step, m_error) is easy to miss
    $<$<COMPILE_LANGUAGE:CXX>:-Wsuggest-override>  # every virtual of an interface is overridden on purpose
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>    # casts on wire bytes must say what they mean
)
