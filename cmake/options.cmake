# Options of all targets.
add_library(vigmond_options INTERFACE)
target_compile_options(
    vigmond_options
    INTERFACE -Wall
              -Wextra
              -Wpedantic
              -Wconversion
              -Wshadow
              -Wformat=2
              -Werror
              -fno-exceptions
              -fno-rtti
              -fno-common)
target_compile_definitions(vigmond_options INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
if(CMAKE_BUILD_TYPE STREQUAL "Release")
    target_compile_options(vigmond_options INTERFACE -ffunction-sections -fdata-sections -fstack-protector-strong)
    target_compile_definitions(vigmond_options INTERFACE _FORTIFY_SOURCE=2)
    target_link_options(vigmond_options INTERFACE -Wl,--gc-sections -Wl,-z,relro,-z,now)
endif()
if(VIGMOND_SANITIZE)
    target_compile_options(vigmond_options INTERFACE -fsanitize=${VIGMOND_SANITIZE} -fno-omit-frame-pointer
                                                     -fno-sanitize-recover=all)
    target_link_options(vigmond_options INTERFACE -fsanitize=${VIGMOND_SANITIZE})
    if(VIGMOND_SANITIZE MATCHES "address" AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        # Shared, so that preloaded libraries come first and can replace malloc. A fuzzer works only with a static one.
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so
                        OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
        cmake_path(GET runtime PARENT_PATH runtime_folder)
        target_link_options(vigmond_options INTERFACE
                            $<IF:$<BOOL:$<TARGET_PROPERTY:FUZZER>>,-static-libsan,-shared-libasan> -Wl,-rpath,${runtime_folder})
    endif()
endif()

# Sets the fixed file text of each source's trace lines: the name of its module. A file in a module's folder traces
# under the module's name.
function(vigmond_trace_files)
    foreach(source ${ARGN})
        file(RELATIVE_PATH module ${PROJECT_SOURCE_DIR}/src ${source})
        string(REGEX MATCH "^(builtin/)?[^/.]+" module ${module})
        set_property(SOURCE ${source} APPEND PROPERTY COMPILE_DEFINITIONS "TRACE_FILE=\"${module}.c\"")
    endforeach()
endfunction()
