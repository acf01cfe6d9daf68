# The targets lint and lint_tests. lint checks the format of everything and runs clang-tidy on src and tools; lint_tests
# runs it on tests, benchmarks and docs, which takes a quarter of an hour, and with a deeper analysis on src and tools.
# clang-tidy has one stamp per source or group of sources, so that only what changed is checked again.
find_program(CLANG_FORMAT clang-format)
find_program(CLANG_TIDY clang-tidy)
if(NOT CLANG_FORMAT OR NOT CLANG_TIDY)
    return()
endif()

file(GLOB_RECURSE HEADERS CONFIGURE_DEPENDS include/*.h tests/*.h bench/*.h fuzz/*.h tools/*.h)
file(GLOB_RECURSE TESTS_TO_TIDY CONFIGURE_DEPENDS tests/*.cpp bench/*.cpp docs/*.cpp)
file(GLOB_RECURSE FUZZ_SOURCES CONFIGURE_DEPENDS fuzz/*.cpp)

# add_tidy_stamps(STAMPS OPTIONS DEPENDENCIES FILE...): appends one stamp per file to the list STAMPS, created when
# clang-tidy finds nothing.
function(add_tidy_stamps stamps options dependencies)
    foreach(file ${ARGN})
        string(REGEX REPLACE "^(${CMAKE_BINARY_DIR}/lint|${PROJECT_SOURCE_DIR})/" "" name ${file})
        set(stamp ${CMAKE_BINARY_DIR}/lint/${name}.${stamps})
        cmake_path(GET stamp PARENT_PATH folder)
        file(MAKE_DIRECTORY ${folder})
        add_custom_command(
            OUTPUT ${stamp}
            COMMAND ${CLANG_TIDY} --quiet -p ${CMAKE_BINARY_DIR} ${options} ${file} 2>/dev/null # hides the count of findings in system headers
            COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
            DEPENDS ${file} ${HEADERS} ${dependencies} ${PROJECT_SOURCE_DIR}/.clang-tidy
            COMMENT "tidy ${name}")
        list(APPEND ${stamps} ${stamp})
    endforeach()
    set(${stamps} ${${stamps}} PARENT_SCOPE)
endfunction()

# Writes a source that includes those given, each with the definition that it is compiled with.
function(write_group path)
    set(text "")
    foreach(source ${ARGN})
        get_source_file_property(definition ${source} COMPILE_DEFINITIONS)
        if(definition MATCHES "^TRACE_FILE=(.+)")
            string(APPEND text "#undef TRACE_FILE\n#define TRACE_FILE ${CMAKE_MATCH_1}\n")
        endif()
        string(APPEND text "#include \"${source}\" // NOLINT(bugprone-suspicious-include)\n")
    endforeach()
    file(CONFIGURE OUTPUT ${path} CONTENT "${text}" @ONLY)
endfunction()

# Most checks walk through all headers of a source, so they take groups of sources. The others take each source by
# itself, which also shows whether it includes what it uses. So does the analyzer, which skips included sources.
# What the analyzer checks only for other systems and languages takes time and finds nothing.
string(CONCAT checks_of_sources
    "clang-analyzer-*,-clang-analyzer-osx*,-clang-analyzer-optin.osx*,-clang-analyzer-optin.mpi*,"
    "-clang-analyzer-optin.performance.GCD*,-clang-analyzer-webkit*,-clang-analyzer-fuchsia*,"
    "-clang-analyzer-nullability*,misc-unused-using-decls,misc-unused-alias-decls")
# The analyzer gives up a function after max-nodes states (by default 225,000) and does not follow a call of a function
# with more than max-inlinable-size blocks (100). These limits take half of the time and reach more of our code,
# because fewer states are spent in the standard library. lint_tests uses the defaults.
string(CONCAT states "--extra-arg=-Xclang;--extra-arg=-analyzer-config;--extra-arg=-Xclang;"
                     "--extra-arg=max-nodes=110000,max-inlinable-size=8")
set(checks_of_groups -clang-analyzer-*)
set(lint_stamps)
set(lint_tests_stamps)
foreach(folder src tools)
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${folder}/*.cpp)
    add_tidy_stamps(lint_stamps "--checks=-*,${checks_of_sources};${states}" "" ${sources})
    add_tidy_stamps(lint_tests_stamps --checks=-*,${checks_of_sources} "" ${sources})
    list(APPEND SOURCES_TO_TIDY ${sources})
    list(LENGTH sources count)
    math(EXPR half "${count} / 2")
    list(SUBLIST sources 0 ${half} half_0)
    list(SUBLIST sources ${half} -1 half_1)
    foreach(half half_0 half_1)
        set(group ${CMAKE_BINARY_DIR}/lint/${folder}_${half}.cpp)
        write_group(${group} ${${half}})
        add_tidy_stamps(lint_stamps --checks=${checks_of_groups} "${sources}" ${group})
        list(APPEND groups ${group})
    endforeach()
endforeach()

# Never built: gives clang-tidy the options of the groups.
add_library(lint_groups OBJECT EXCLUDE_FROM_ALL ${groups})
target_link_libraries(lint_groups PRIVATE vigmond_core vigmond_log_core vigmond_revision)
target_include_directories(lint_groups PRIVATE $<TARGET_PROPERTY:vigmond_log_core,INCLUDE_DIRECTORIES>)
set_source_files_properties(${groups} PROPERTIES COMPILE_OPTIONS -Wno-shadow) # a name of one source may be local in another
set_target_properties(lint_groups PROPERTIES UNITY_BUILD OFF)

add_tidy_stamps(lint_tests_stamps "" "" ${TESTS_TO_TIDY})
add_custom_target(
    lint
    COMMAND ${CLANG_FORMAT} --dry-run --Werror ${HEADERS} ${SOURCES_TO_TIDY} ${TESTS_TO_TIDY} ${FUZZ_SOURCES}
    COMMAND ${PROJECT_SOURCE_DIR}/script/layers
    DEPENDS ${lint_stamps}
    COMMENT "format, layers")
add_custom_target(lint_tests DEPENDS ${lint_tests_stamps})
add_dependencies(lint vigmond_revision_header)
add_dependencies(lint_tests vigmond_revision_header)
