# The targets lint and lint_tests. lint checks the format of everything and runs clang-tidy on src and tools; lint_tests
# runs it on tests, benchmarks and docs, which takes a quarter of an hour. clang-tidy has one stamp per source, so that
# only changed files are checked again.
find_program(CLANG_FORMAT clang-format)
find_program(CLANG_TIDY clang-tidy)
if(NOT CLANG_FORMAT OR NOT CLANG_TIDY)
    return()
endif()

file(GLOB_RECURSE HEADERS CONFIGURE_DEPENDS include/*.h tests/*.h bench/*.h fuzz/*.h tools/*.h)
file(GLOB_RECURSE SOURCES_TO_TIDY CONFIGURE_DEPENDS src/*.cpp tools/*.cpp)
file(GLOB_RECURSE TESTS_TO_TIDY CONFIGURE_DEPENDS tests/*.cpp bench/*.cpp docs/*.cpp)
file(GLOB_RECURSE FUZZ_SOURCES CONFIGURE_DEPENDS fuzz/*.cpp)

# Appends one stamp per file to `stamps`, created when clang-tidy finds nothing.
function(add_tidy_stamps stamps)
    foreach(file ${ARGN})
        file(RELATIVE_PATH name ${CMAKE_CURRENT_SOURCE_DIR} ${file})
        set(stamp ${CMAKE_BINARY_DIR}/lint/${name}.tidy)
        cmake_path(GET stamp PARENT_PATH folder)
        file(MAKE_DIRECTORY ${folder})
        add_custom_command(
            OUTPUT ${stamp}
            COMMAND ${CLANG_TIDY} --quiet -p ${CMAKE_BINARY_DIR} ${file} 2>/dev/null # hides the count of findings in system headers
            COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
            DEPENDS ${file} ${HEADERS} ${CMAKE_CURRENT_SOURCE_DIR}/.clang-tidy
            COMMENT "tidy ${name}")
        list(APPEND ${stamps} ${stamp})
    endforeach()
    set(${stamps} ${${stamps}} PARENT_SCOPE)
endfunction()

set(lint_stamps)
set(lint_tests_stamps)
add_tidy_stamps(lint_stamps ${SOURCES_TO_TIDY})
add_tidy_stamps(lint_tests_stamps ${TESTS_TO_TIDY})
add_custom_target(
    lint
    COMMAND ${CLANG_FORMAT} --dry-run --Werror ${HEADERS} ${SOURCES_TO_TIDY} ${TESTS_TO_TIDY} ${FUZZ_SOURCES}
    COMMAND ${PROJECT_SOURCE_DIR}/script/layers
    DEPENDS ${lint_stamps}
    COMMENT "format, layers")
add_custom_target(lint_tests DEPENDS ${lint_tests_stamps})
add_dependencies(lint vigmond_revision_header)
add_dependencies(lint_tests vigmond_revision_header)
