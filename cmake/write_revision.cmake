cmake_minimum_required(VERSION 3.25)

# The digits come from git, from the variable GIVEN where there is no git, and are zeros where there
# is neither.
execute_process(
    COMMAND git -C ${SOURCE_DIR} rev-parse --verify HEAD
    OUTPUT_VARIABLE digits
    OUTPUT_STRIP_TRAILING_WHITESPACE
    ERROR_QUIET)
string(REPEAT "0" 40 zeros)
string(REPEAT "[0-9a-f]" 40 pattern)
if(NOT digits MATCHES "^${pattern}$")
    set(digits "${GIVEN}")
endif()
if(NOT digits MATCHES "^${pattern}$")
    set(digits ${zeros})
endif()
file(CONFIGURE OUTPUT ${HEADER} @ONLY CONTENT [[
#pragma once

#define REVISION_VERSION "@VERSION@"
#define REVISION_GIT_ID "@digits@"
]])
