# cmake -DCC=<m68k gcc> -DFLAGS=<;-list> -DLDFLAGS=<;-list> -DELF2HUNK=<tool> -DSRC=<file.S> -DWORK=<dir>
#   -DEXPECT=<regex> -P: builds a deliberately broken player; elf2hunk must refuse it as EXPECT says, leaving no output.
file(MAKE_DIRECTORY ${WORK})
execute_process(COMMAND ${CC} ${FLAGS} ${LDFLAGS} -o ${WORK}/bad.elf ${SRC} RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "building ${SRC} failed: ${err}")
endif()
execute_process(COMMAND ${ELF2HUNK} ${WORK}/bad.elf ${WORK}/bad.hunk RESULT_VARIABLE rc ERROR_VARIABLE err)
if(rc EQUAL 0 OR NOT err MATCHES "${EXPECT}" OR EXISTS ${WORK}/bad.hunk)
  message(FATAL_ERROR "elf2hunk's answer to ${SRC}: exit code ${rc}, message: ${err}"
    " (expected a refusal matching '${EXPECT}' and no ${WORK}/bad.hunk)")
endif()
message(STATUS "refused as expected: ${err}")
