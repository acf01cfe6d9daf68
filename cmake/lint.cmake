# The targets lint and lint_tests. lint checks the format of everything and runs clang-tidy on src and tools; lint_tests
# runs it on tests, benchmarks and docs, which takes a quarter of an hour. clang-tidy has one stamp per source, so that
# only changed files are checked again.
find_program(CLANG_FORMAT clang-format)
find_program(CLANG_TIDY clang-tidy)
if(NOT CLANG_FORMAT OR NOT CLANG_TIDY)
    return()
endif()

file(GLOB_RECURSE HEADERS CONFIGURE_DEPENDS include/*.h tests/*.h bench/*.h fuzz/*.h tools/*.h)
file(GLOB_RECURSE SOURCES_TO_TIDY CONFIGURE_DEPENDS src/*.cpp)
file(GLOB_RECURSE TOOLS_TO_TIDY CONFIGURE_DEPENDS tools/*.cpp)
file(GLOB_RECURSE TESTS_TO_TIDY CONFIGURE_DEPENDS tests/*.cpp bench/*.cpp docs/*.cpp)
file(GLOB_RECURSE FUZZ_SOURCES CONFIGURE_DEPENDS fuzz/*.cpp)

# add_tidy_stamps(STAMPS OPTIONS FILE...): appends one stamp per file to STAMPS, created when clang-tidy finds nothing.
function(add_tidy_stamps stamps options)
    foreach(file ${ARGN})
        string(REGEX REPLACE "^(${CMAKE_BINARY_DIR}/lint|${PROJECT_SOURCE_DIR})/" "" name ${file})
        set(stamp ${CMAKE_BINARY_DIR}/lint/${name}.tidy)
        cmake_path(GET stamp PARENT_PATH folder)
        file(MAKE_DIRECTORY ${folder})
        add_custom_command(
            OUTPUT ${stamp}
            COMMAND ${CLANG_TIDY} --quiet -p ${CMAKE_BINARY_DIR} ${options} ${file} 2>/dev/null # hides the count of findings in system headers
            COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
            DEPENDS ${file} ${HEADERS} ${GROUPED} ${PROJECT_SOURCE_DIR}/.clang-tidy
            COMMENT "tidy ${name}")
        list(APPEND ${stamps} ${stamp})
    endforeach()
    set(${stamps} ${${stamps}} PARENT_SCOPE)
endfunction()

# Most checks walk through all headers of a source, which takes most of the time in tools. So there they take two groups
# of sources. The analyzer takes each by itself, which also shows whether it includes what it uses.
list(LENGTH TOOLS_TO_TIDY count)
math(EXPR half "${count} / 2")
list(SUBLIST TOOLS_TO_TIDY 0 ${half} tools_0)
list(SUBLIST TOOLS_TO_TIDY ${half} -1 tools_1)
foreach(group tools_0 tools_1)
    list(TRANSFORM ${group} REPLACE "(.+)" "#include \"\\1\" // NOLINT(bugprone-suspicious-include)\n")
    list(JOIN ${group} "" text)
    file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/lint/${group}.cpp CONTENT "${text}" @ONLY)
    list(APPEND GROUPS ${CMAKE_BINARY_DIR}/lint/${group}.cpp)
endforeach()
add_library(lint_groups OBJECT EXCLUDE_FROM_ALL ${GROUPS}) # for the compile commands
target_link_libraries(lint_groups PRIVATE vigmond_log_core vigmond_revision)
target_include_directories(lint_groups PRIVATE $<TARGET_PROPERTY:vigmond_log_core,INCLUDE_DIRECTORIES>)
set_target_properties(lint_groups PROPERTIES UNITY_BUILD OFF)

set(lint_stamps)
set(lint_tests_stamps)
add_tidy_stamps(lint_stamps "" ${SOURCES_TO_TIDY})
add_tidy_stamps(lint_stamps "--checks=-*,clang-analyzer-*,misc-unused-using-decls,misc-unused-alias-decls" ${TOOLS_TO_TIDY})
set(GROUPED ${TOOLS_TO_TIDY})
add_tidy_stamps(lint_stamps "--checks=-clang-analyzer-*" ${GROUPS})
set(GROUPED)
add_tidy_stamps(lint_tests_stamps "" ${TESTS_TO_TIDY})
add_custom_target(
    lint
    COMMAND ${CLANG_FORMAT} --dry-run --Werror ${HEADERS} ${SOURCES_TO_TIDY} ${TOOLS_TO_TIDY} ${TESTS_TO_TIDY} ${FUZZ_SOURCES}
    COMMAND ${PROJECT_SOURCE_DIR}/script/layers
    DEPENDS ${lint_stamps}
    COMMENT "format, layers")
add_custom_target(lint_tests DEPENDS ${lint_tests_stamps})
add_dependencies(lint vigmond_revision_header)
add_dependencies(lint_tests vigmond_revision_header)
