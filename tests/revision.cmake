# Fails if WRITE_REVISION reads the digits of a source revision from the wrong place. FOLDER is a scratch folder.
cmake_minimum_required(VERSION 3.25)
string(REPEAT "0" 40 zeros)
string(REPEAT "a" 40 given)

# Fails unless the digits for the sources in `sources`, built with `handed_over`, are `wanted`.
function(expect_digits wanted sources handed_over)
    set(header ${FOLDER}/revision.h)
    execute_process(
        COMMAND ${CMAKE_COMMAND} -DVERSION=1.2.3 -DGIVEN=${handed_over} -DSOURCE_DIR=${sources} -DHEADER=${header}
                -P ${WRITE_REVISION} COMMAND_ERROR_IS_FATAL ANY)
    file(READ ${header} written)
    set(expected "#pragma once\n\n#define REVISION_VERSION \"1.2.3\"\n#define REVISION_GIT_ID \"${wanted}\"\n")
    if(NOT written STREQUAL expected)
        message(SEND_ERROR "${sources}, given <${handed_over}>: ${written}")
    endif()
endfunction()

file(REMOVE_RECURSE ${FOLDER})
file(MAKE_DIRECTORY ${FOLDER}/none ${FOLDER}/top/below ${FOLDER}/empty)
set(ENV{GIT_CEILING_DIRECTORIES} ${FOLDER}) # do not find this project's repository
execute_process(COMMAND git init -q ${FOLDER}/empty COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND git init -q ${FOLDER}/top COMMAND_ERROR_IS_FATAL ANY)
execute_process(
    COMMAND git -C ${FOLDER}/top -c user.name=x -c user.email=x@localhost -c commit.gpgSign=false commit -q --allow-empty -m x
            COMMAND_ERROR_IS_FATAL ANY)
execute_process(
    COMMAND git -C ${FOLDER}/top rev-parse HEAD
    OUTPUT_VARIABLE head
    OUTPUT_STRIP_TRAILING_WHITESPACE)
file(CREATE_LINK ${FOLDER}/top ${FOLDER}/link SYMBOLIC)

expect_digits(${head} ${FOLDER}/top "")
expect_digits(${head} ${FOLDER}/link "")
expect_digits(${head} ${FOLDER}/top 0123) # too short for a revision
expect_digits(${given} ${FOLDER}/top ${given})
expect_digits(${zeros} ${FOLDER}/top/below "")
expect_digits(${given} ${FOLDER}/top/below ${given})
expect_digits(${zeros} ${FOLDER}/empty "")
expect_digits(${zeros} ${FOLDER}/none "")
expect_digits(${given} ${FOLDER}/none ${given})
