cmake_minimum_required(VERSION 3.25)

# The digits are those that the build was given (GIVEN), else git's when SOURCE_DIR is the top folder of a
# repository, else zeros. A repository that begins above the sources is another project's.
string(REPEAT "0" 40 zeros)
string(REPEAT "[0-9a-f]" 40 pattern)
set(digits "${GIVEN}")
if(NOT digits MATCHES "^${pattern}$")
    execute_process(
        COMMAND git -C ${SOURCE_DIR} rev-parse --show-prefix HEAD
        OUTPUT_VARIABLE answer # the way from the top folder, which is empty there, and the digits, a line each
        OUTPUT_STRIP_TRAILING_WHITESPACE
        ERROR_QUIET)
    if(answer MATCHES "^\n(${pattern})$")
        set(digits ${CMAKE_MATCH_1})
    else()
        set(digits ${zeros})
    endif()
endif()
file(CONFIGURE OUTPUT ${HEADER} @ONLY CONTENT [[
#pragma once

#define REVISION_VERSION "@VERSION@"
#define REVISION_GIT_ID "@digits@"
]])
