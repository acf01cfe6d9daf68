# The target lint: clang-format and clang-tidy, one stamp a source, so that only what changed is
# looked at again.
find_program(CLANG_FORMAT clang-format)
find_program(CLANG_TIDY clang-tidy)
if(NOT CLANG_FORMAT OR NOT CLANG_TIDY)
    return()
endif()

file(GLOB_RECURSE HEADERS CONFIGURE_DEPENDS include/*.h tests/*.h bench/*.h fuzz/*.h)
file(GLOB_RECURSE TIDY_SOURCES CONFIGURE_DEPENDS src/*.cpp tests/*.cpp bench/*.cpp)
file(GLOB_RECURSE FUZZ_SOURCES CONFIGURE_DEPENDS fuzz/*.cpp)
set(stamps)
foreach(file ${HEADERS} ${TIDY_SOURCES} ${FUZZ_SOURCES})
    file(RELATIVE_PATH name ${CMAKE_CURRENT_SOURCE_DIR} ${file})
    set(stamp ${CMAKE_BINARY_DIR}/lint/${name}.format)
    cmake_path(GET stamp PARENT_PATH folder)
    file(MAKE_DIRECTORY ${folder})
    add_custom_command(
        OUTPUT ${stamp}
        COMMAND ${CLANG_FORMAT} --dry-run --Werror ${file}
        COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
        DEPENDS ${file} ${CMAKE_CURRENT_SOURCE_DIR}/.clang-format
        COMMENT "clang-format ${name}")
    list(APPEND stamps ${stamp})
endforeach()
foreach(file ${TIDY_SOURCES})
    file(RELATIVE_PATH name ${CMAKE_CURRENT_SOURCE_DIR} ${file})
    set(stamp ${CMAKE_BINARY_DIR}/lint/${name}.tidy)
    add_custom_command(
        OUTPUT ${stamp}
        COMMAND ${CLANG_TIDY} --quiet -p ${CMAKE_BINARY_DIR} ${file} 2>/dev/null # the count of what is not ours
        COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
        DEPENDS ${file} ${HEADERS} ${CMAKE_CURRENT_SOURCE_DIR}/.clang-tidy
        COMMENT "clang-tidy ${name}")
    list(APPEND stamps ${stamp})
endforeach()
add_custom_target(lint DEPENDS ${stamps})
add_dependencies(lint vigmond_revision_header)
