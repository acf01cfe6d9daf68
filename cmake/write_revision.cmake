cmake_minimum_required(VERSION 3.25)

# The digits come from the option (GIVEN), or from git if SOURCE_DIR is the top folder of a repository, or are zeros.
# A repository above the sources belongs to another project.
string(REPEAT "0" 40 zeros)
string(REPEAT "[0-9a-f]" 40 pattern)
set(digits "${GIVEN}")
if(NOT digits MATCHES "^${pattern}$")
    execute_process(
        COMMAND git -C ${SOURCE_DIR} rev-parse --show-prefix HEAD
        OUTPUT_VARIABLE answer # two lines: the path from the top folder (empty there) and the digits
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
