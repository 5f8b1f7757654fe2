# The compiler settings of every target of the project, as one interface target: link it to get warnings as
# errors and, in the sanitizer presets, the sanitizer.
set(TAVI_SANITIZE "" CACHE STRING "Sanitizers to build with, as in -fsanitize=...")

add_library(project_options INTERFACE)
# Numbers are the same on every processor: no multiplication is fused with the addition after it.
target_compile_options(project_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -ffp-contract=off)

if(TAVI_SANITIZE)
    # Everything of a process must be instrumented, libraries that it loads included, so these are global.
    add_compile_options(-fsanitize=${TAVI_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${TAVI_SANITIZE})
endif()

# Adds a test program in the folder that mirrors the one it exercises; its cases are found when it is run.
# The label "one_thread" is for what has nothing to tell the thread sanitizer: it is not built with that.
#   tavi_add_test(NAME SOURCES a.cpp b.cpp LIBRARIES x y [TIMEOUT seconds] [LABEL one_thread])
function(tavi_add_test name)
    cmake_parse_arguments(ARG "" "TIMEOUT;LABEL" "SOURCES;LIBRARIES" ${ARGN})
    if(ARG_LABEL STREQUAL one_thread AND TAVI_SANITIZE STREQUAL thread)
        return()
    endif()
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE project_options ${ARG_LIBRARIES} GTest::gmock GTest::gtest_main)
    target_compile_options(${name} PRIVATE -O0) # compiling them takes longer than running them
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 180) # far more than any takes, under a sanitizer on a loaded machine too
    endif()
    include(GoogleTest)
    gtest_discover_tests(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABEL}" DISCOVERY_TIMEOUT 60)
endfunction()
