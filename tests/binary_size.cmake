# Fails if the stripped PROGRAM has more than MOST bytes.
set(STRIPPED ${PROGRAM}.stripped)
execute_process(COMMAND ${STRIP} -o ${STRIPPED} ${PROGRAM} COMMAND_ERROR_IS_FATAL ANY)
file(SIZE ${STRIPPED} size)
file(REMOVE ${STRIPPED})
message("${size} bytes, of ${MOST}")
if(size GREATER MOST)
    message(FATAL_ERROR "the program has grown too large")
endif()
