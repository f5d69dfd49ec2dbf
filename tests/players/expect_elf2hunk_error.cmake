# Builds a deliberately broken player source and checks that elf2hunk
# refuses it with the expected message (ctest runs this with -P).
#   -DCC=<m68k gcc> -DFLAGS=<;-list> -DLDFLAGS=<;-list> -DELF2HUNK=<tool>
#   -DSRC=<file.S> -DWORK=<dir> -DEXPECT=<regex>
file(MAKE_DIRECTORY ${WORK})
execute_process(COMMAND ${CC} ${FLAGS} -c ${SRC} -o ${WORK}/bad.o RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "compiling ${SRC} failed: ${err}")
endif()
execute_process(COMMAND ${CC} ${LDFLAGS} -o ${WORK}/bad.elf ${WORK}/bad.o RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "linking ${SRC} failed: ${err}")
endif()
execute_process(COMMAND ${ELF2HUNK} ${WORK}/bad.elf ${WORK}/bad.hunk RESULT_VARIABLE rc ERROR_VARIABLE err)
if(rc EQUAL 0)
  message(FATAL_ERROR "elf2hunk accepted ${SRC}")
endif()
if(NOT err MATCHES "${EXPECT}")
  message(FATAL_ERROR "elf2hunk's message for ${SRC} was: ${err}")
endif()
if(EXISTS ${WORK}/bad.hunk)
  message(FATAL_ERROR "elf2hunk left an output file behind")
endif()
message(STATUS "refused as expected: ${err}")
