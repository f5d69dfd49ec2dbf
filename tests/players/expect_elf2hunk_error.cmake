# cmake -DCC=<m68k gcc> -DFLAGS=<;-list> -DLDFLAGS=<;-list> -DELF2HUNK=<tool> -DSRC=<file.S> -DWORK=<dir>
#   -DEXPECT=<regex> -P: builds a deliberately broken player; elf2hunk must refuse it as EXPECT says, leaving no output.
file(MAKE_DIRECTORY ${WORK})
macro(build_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} ${SRC} failed: ${err}")
  endif()
endmacro()
build_step(compiling ${CC} ${FLAGS} -c ${SRC} -o ${WORK}/bad.o)
build_step(linking ${CC} ${LDFLAGS} -o ${WORK}/bad.elf ${WORK}/bad.o)
execute_process(COMMAND ${ELF2HUNK} ${WORK}/bad.elf ${WORK}/bad.hunk RESULT_VARIABLE rc ERROR_VARIABLE err)
if(rc EQUAL 0 OR NOT err MATCHES "${EXPECT}" OR EXISTS ${WORK}/bad.hunk)
  message(FATAL_ERROR "elf2hunk's answer to ${SRC}: exit code ${rc}, message: ${err}"
    " (expected a refusal matching '${EXPECT}' and no ${WORK}/bad.hunk)")
endif()
message(STATUS "refused as expected: ${err}")
