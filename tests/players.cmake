# Test players: small hunk executables built from tests/players/ with the
# cross toolchain, into <build>/tests/players/<Name>. The tests find them
# through KELVA_TEST_PLAYERS. Envelope plays a tone whose loudness pattern,
# stop and song end are set by its module; EnvelopeSongEnd is the same with
# the song-end flag.
include(${CMAKE_SOURCE_DIR}/cmake/KelvaPlayer.cmake)

set(KELVA_TEST_PLAYERS_DIR ${CMAKE_BINARY_DIR}/tests/players)
set(KELVA_TEST_PLAYER_NAMES Tone IrqOrder Subsong Files DosSegment Misbehave)
foreach(p ${KELVA_TEST_PLAYER_NAMES})
  kelva_add_player(NAME ${p} SOURCES ${CMAKE_CURRENT_LIST_DIR}/players/${p}.S OUTPUT_DIR ${KELVA_TEST_PLAYERS_DIR})
endforeach()
foreach(p SongEnd Envelope EnvelopeSongEnd)
  kelva_add_player(NAME ${p} SOURCES ${CMAKE_CURRENT_LIST_DIR}/players/${p}.c OUTPUT_DIR ${KELVA_TEST_PLAYERS_DIR})
endforeach()
kelva_add_player(NAME SwMix SOURCES ${CMAKE_CURRENT_LIST_DIR}/players/SwMix.c ${KELVA_PLAYER_LIB}/swmix.c
                 OUTPUT_DIR ${KELVA_TEST_PLAYERS_DIR})
list(APPEND KELVA_TEST_PLAYER_NAMES SongEnd Envelope EnvelopeSongEnd SwMix)

target_compile_definitions(kelva_tests PRIVATE KELVA_TEST_PLAYERS="${KELVA_TEST_PLAYERS_DIR}")
if(KELVA_M68K_CC)
  foreach(p ${KELVA_TEST_PLAYER_NAMES})
    add_dependencies(kelva_tests kelva_player_${p})
  endforeach()
endif()

# elf2hunk refuses what a hunk file cannot express.
if(KELVA_M68K_CC)
  foreach(bad CrossHunkPcrel AbsWord)
    if(bad STREQUAL CrossHunkPcrel)
      set(expect "R_68K_PC16 at 00000002 refers to .data in another hunk")
    else()
      set(expect "R_68K_16 at 00000002 refers to relocatable symbol .text; a hunk file can only relocate")
    endif()
    add_test(NAME elf2hunk_refuses_${bad}
      COMMAND ${CMAKE_COMMAND} -DCC=${KELVA_M68K_CC} "-DFLAGS=${KELVA_PLAYER_FLAGS}"
        "-DLDFLAGS=${KELVA_PLAYER_LDFLAGS}" -DELF2HUNK=$<TARGET_FILE:elf2hunk>
        -DSRC=${CMAKE_CURRENT_LIST_DIR}/players/bad/${bad}.S -DWORK=${CMAKE_CURRENT_BINARY_DIR}/elf2hunk_${bad}
        "-DEXPECT=${expect}" -P ${CMAKE_CURRENT_LIST_DIR}/players/expect_elf2hunk_error.cmake)
    set_tests_properties(elf2hunk_refuses_${bad} PROPERTIES LABELS unit)
  endforeach()
endif()
