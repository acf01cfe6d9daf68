# Fails unless PROGRAM defines all functions in NAMES, separated by "|".
execute_process(COMMAND ${NM} --defined-only --demangle ${PROGRAM} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "|" ";" NAMES ${NAMES})
foreach(name ${NAMES})
    if(NOT symbols MATCHES " [Tt] ${name}\\(")
        message(SEND_ERROR "${name} is missing")
    endif()
endforeach()
