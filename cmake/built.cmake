# Imports the programs and libraries of the build folder VIGMOND_BUILT: one compiler compiles them, another their tests.
function(import_library name folder)
    add_library(${name} STATIC IMPORTED GLOBAL)
    set_target_properties(${name} PROPERTIES IMPORTED_LOCATION ${VIGMOND_BUILT}/${folder}lib${name}.a SYSTEM OFF)
endfunction()

import_library(vigmond_core "")
target_include_directories(vigmond_core INTERFACE include src)
target_link_libraries(vigmond_core INTERFACE vigmond_options PkgConfig::SYSTEMD PkgConfig::DBUS BZip2::BZip2
                                             Threads::Threads)
import_library(vigmond_log_core tools/vigmond-log/)
target_include_directories(vigmond_log_core INTERFACE tools/vigmond-log include)
target_link_libraries(vigmond_log_core INTERFACE vigmond_options BZip2::BZip2 Threads::Threads ${CMAKE_DL_LIBS})

foreach(program vigmond vigmond-log)
    add_executable(${program} IMPORTED GLOBAL)
    set_target_properties(${program} PROPERTIES IMPORTED_LOCATION ${VIGMOND_BUILT}/${program})
    file(CREATE_LINK ${VIGMOND_BUILT}/${program} ${CMAKE_BINARY_DIR}/${program} SYMBOLIC) # for script/run
endforeach()
