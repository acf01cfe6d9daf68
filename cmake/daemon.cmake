# The daemon, and the library with all of it but main.
file(GLOB_RECURSE SOURCES CONFIGURE_DEPENDS src/*.cpp)
list(REMOVE_ITEM SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/src/vigmond.cpp)

add_library(vigmond_core STATIC ${SOURCES})
target_include_directories(vigmond_core PUBLIC include src)
target_link_libraries(vigmond_core PUBLIC vigmond_options PkgConfig::SYSTEMD PkgConfig::DBUS BZip2::BZip2 Threads::Threads
                      PRIVATE vigmond_revision)
# The lint stage compiles without them, so that each file includes what it uses.
target_precompile_headers(vigmond_core PRIVATE <algorithm> <array> <atomic> <charconv> <chrono> <cstdio> <cstdlib> <cstring>
                          <ctime> <memory> <span> <string_view> <utility>)

add_executable(vigmond src/vigmond.cpp)
target_link_libraries(vigmond PRIVATE vigmond_core)
vigmond_trace_files(${SOURCES} ${CMAKE_CURRENT_SOURCE_DIR}/src/vigmond.cpp)
if(NOT VIGMOND_SANITIZE)
    target_link_options(vigmond PRIVATE -static-libstdc++ -static-libgcc)
endif()
set_target_properties(vigmond PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})

if(VIGMOND_COVERAGE)
    target_compile_options(vigmond_core PRIVATE --coverage -fprofile-update=atomic)
    target_compile_options(vigmond PRIVATE --coverage -fprofile-update=atomic)
    target_link_options(vigmond_core PUBLIC --coverage)
endif()
