# The targets lint and lint_tests: clang-format and clang-tidy with one stamp per source, so that only changed files
# are checked again. lint checks the format of everything and runs clang-tidy on src and tools; lint_tests runs it on
# tests, benchmarks and docs, which takes a quarter of an hour.
find_program(CLANG_FORMAT clang-format)
find_program(CLANG_TIDY clang-tidy)
if(NOT CLANG_FORMAT OR NOT CLANG_TIDY)
    return()
endif()

file(GLOB_RECURSE HEADERS CONFIGURE_DEPENDS include/*.h tests/*.h bench/*.h fuzz/*.h tools/*.h)
file(GLOB_RECURSE SOURCES_TO_TIDY CONFIGURE_DEPENDS src/*.cpp tools/*.cpp)
file(GLOB_RECURSE TESTS_TO_TIDY CONFIGURE_DEPENDS tests/*.cpp bench/*.cpp docs/*.cpp)
file(GLOB_RECURSE FUZZ_SOURCES CONFIGURE_DEPENDS fuzz/*.cpp)

# Appends one stamp per file to `stamps`, created when the tool, configured by the file `settings`, finds nothing.
function(add_stamps stamps tool settings)
    cmake_parse_arguments(ARG "" "" "COMMAND;FILES;DEPENDS" ${ARGN})
    foreach(file ${ARG_FILES})
        file(RELATIVE_PATH name ${CMAKE_CURRENT_SOURCE_DIR} ${file})
        set(stamp ${CMAKE_BINARY_DIR}/lint/${name}.${tool})
        cmake_path(GET stamp PARENT_PATH folder)
        file(MAKE_DIRECTORY ${folder})
        add_custom_command(
            OUTPUT ${stamp}
            COMMAND ${ARG_COMMAND} ${file} 2>/dev/null # hides the count of findings in system headers
            COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
            DEPENDS ${file} ${ARG_DEPENDS} ${CMAKE_CURRENT_SOURCE_DIR}/${settings}
            COMMENT "${tool} ${name}")
        list(APPEND ${stamps} ${stamp})
    endforeach()
    set(${stamps} ${${stamps}} PARENT_SCOPE)
endfunction()

set(lint_stamps)
set(lint_tests_stamps)
set(FORMAT ${CLANG_FORMAT} --dry-run --Werror)
set(TIDY ${CLANG_TIDY} --quiet -p ${CMAKE_BINARY_DIR})
add_stamps(lint_stamps format .clang-format COMMAND ${FORMAT} FILES ${HEADERS} ${SOURCES_TO_TIDY} ${TESTS_TO_TIDY}
           ${FUZZ_SOURCES})
add_stamps(lint_stamps tidy .clang-tidy COMMAND ${TIDY} FILES ${SOURCES_TO_TIDY} DEPENDS ${HEADERS})
add_stamps(lint_tests_stamps tidy .clang-tidy COMMAND ${TIDY} FILES ${TESTS_TO_TIDY} DEPENDS ${HEADERS})
add_custom_target(lint COMMAND ${PROJECT_SOURCE_DIR}/script/layers DEPENDS ${lint_stamps})
add_custom_target(lint_tests DEPENDS ${lint_tests_stamps})
add_dependencies(lint vigmond_revision_header)
add_dependencies(lint_tests vigmond_revision_header)
