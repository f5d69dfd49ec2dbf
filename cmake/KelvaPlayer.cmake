# Building kelva's own players: 68k assembly (.S) and C for the plain 68000,
# cross-compiled, linked at address 0 with relocations kept, and converted to
# an AmigaOS hunk executable by elf2hunk.
#
#   kelva_add_player(NAME <name> SOURCES <files...> OUTPUT_DIR <dir>)
#
# produces <dir>/<name> and a target kelva_player_<name> (built by ALL).
# Every player gets players/include (kelva_player.h) and players/lib (shared
# code: list its .c files among the SOURCES) on its include path.
include_guard(DIRECTORY)   # the variables below are directory-scoped: set them in every including folder

find_program(KELVA_M68K_CC m68k-linux-gnu-gcc)
set(KELVA_PLAYER_INCLUDE ${CMAKE_CURRENT_LIST_DIR}/../players/include)
get_filename_component(KELVA_PLAYER_INCLUDE ${KELVA_PLAYER_INCLUDE} ABSOLUTE)
set(KELVA_PLAYER_LDSCRIPT ${KELVA_PLAYER_INCLUDE}/player.ld)
# Code shared by several players (software mixing, 68000 arithmetic).
set(KELVA_PLAYER_LIB ${CMAKE_CURRENT_LIST_DIR}/../players/lib)
get_filename_component(KELVA_PLAYER_LIB ${KELVA_PLAYER_LIB} ABSOLUTE)

# The plain 68000; no C library, no libgcc (its m68k build assumes a 68020).
set(KELVA_PLAYER_FLAGS -m68000 -nostdlib -ffreestanding -fno-pic -fomit-frame-pointer
    -fno-tree-loop-distribute-patterns -Wa,--register-prefix-optional -I${KELVA_PLAYER_INCLUDE} -I${KELVA_PLAYER_LIB})
set(KELVA_PLAYER_CFLAGS -O2 -Wall -Wextra -Werror)
set(KELVA_PLAYER_LDFLAGS -m68000 -nostdlib -Wl,-q -Wl,-T,${KELVA_PLAYER_LDSCRIPT}
    -Wl,--build-id=none -Wl,--no-warn-rwx-segments -Wl,-e,0)

if(NOT KELVA_M68K_CC)
  message(WARNING "m68k-linux-gnu-gcc not found: kelva's players will not be built")
endif()

function(kelva_add_player)
  cmake_parse_arguments(P "" "NAME;OUTPUT_DIR" "SOURCES" ${ARGN})
  if(NOT P_NAME OR NOT P_SOURCES OR NOT P_OUTPUT_DIR)
    message(FATAL_ERROR "kelva_add_player: NAME, SOURCES and OUTPUT_DIR are required")
  endif()
  if(NOT KELVA_M68K_CC)
    return()
  endif()
  set(objdir ${CMAKE_CURRENT_BINARY_DIR}/player_obj/${P_NAME})
  set(objects "")
  foreach(src ${P_SOURCES})
    get_filename_component(abs ${src} ABSOLUTE)
    get_filename_component(base ${src} NAME)
    set(obj ${objdir}/${base}.o)
    set(flags ${KELVA_PLAYER_FLAGS})
    if(abs MATCHES "\\.c$")
      list(APPEND flags ${KELVA_PLAYER_CFLAGS})
    endif()
    add_custom_command(
      OUTPUT ${obj}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${objdir}
      COMMAND ${KELVA_M68K_CC} ${flags} -MD -MF ${obj}.d -c ${abs} -o ${obj}
      DEPENDS ${abs}
      DEPFILE ${obj}.d
      COMMENT "m68k: ${P_NAME}/${base}"
      VERBATIM)
    list(APPEND objects ${obj})
  endforeach()
  set(elf ${objdir}/${P_NAME}.elf)
  add_custom_command(
    OUTPUT ${elf}
    COMMAND ${KELVA_M68K_CC} ${KELVA_PLAYER_LDFLAGS} -o ${elf} ${objects}
    DEPENDS ${objects} ${KELVA_PLAYER_LDSCRIPT}
    COMMENT "m68k: linking ${P_NAME}"
    VERBATIM)
  add_custom_command(
    OUTPUT ${P_OUTPUT_DIR}/${P_NAME}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${P_OUTPUT_DIR}
    COMMAND elf2hunk ${elf} ${P_OUTPUT_DIR}/${P_NAME}
    DEPENDS ${elf} elf2hunk
    COMMENT "elf2hunk: ${P_NAME}"
    VERBATIM)
  add_custom_target(kelva_player_${P_NAME} ALL DEPENDS ${P_OUTPUT_DIR}/${P_NAME})
endfunction()
