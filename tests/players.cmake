# Test players: small hunk executables built from tests/players/ with the cross toolchain, into
# <build>/tests/players/<Name>, found by the tests through KELVA_TEST_PLAYERS.
include(${CMAKE_SOURCE_DIR}/cmake/KelvaPlayer.cmake)

set(KELVA_TEST_PLAYERS_DIR ${CMAKE_BINARY_DIR}/tests/players)
set(test_player_targets kelva_player_SwMix)
kelva_add_player(NAME SwMix SOURCES ${CMAKE_CURRENT_LIST_DIR}/players/SwMix.c ${KELVA_PLAYER_LIB}/swmix.c
                 OUTPUT_DIR ${KELVA_TEST_PLAYERS_DIR})
foreach(src Tone.c IrqOrder.S Subsong.c Files.S DosSegment.S Misbehave.S Envelope.c EnvelopeSongEnd.c)
  get_filename_component(p ${src} NAME_WE)
  kelva_add_player(NAME ${p} SOURCES ${CMAKE_CURRENT_LIST_DIR}/players/${src} OUTPUT_DIR ${KELVA_TEST_PLAYERS_DIR})
  list(APPEND test_player_targets kelva_player_${p})
endforeach()
target_compile_definitions(kelva_tests PRIVATE KELVA_TEST_PLAYERS="${KELVA_TEST_PLAYERS_DIR}")

# elf2hunk refuses what a hunk file cannot express.
set(expect_CrossHunkPcrel "R_68K_PC16 at 00000002 refers to .data in another hunk")
set(expect_AbsWord "R_68K_16 at 00000002 refers to relocatable symbol .text; a hunk file can only relocate")
if(KELVA_M68K_CC)
  add_dependencies(kelva_tests ${test_player_targets})
  foreach(bad CrossHunkPcrel AbsWord)
    add_test(NAME elf2hunk_refuses_${bad}
      COMMAND ${CMAKE_COMMAND} -DCC=${KELVA_M68K_CC} "-DFLAGS=${KELVA_PLAYER_FLAGS}"
        "-DLDFLAGS=${KELVA_PLAYER_LDFLAGS}" -DELF2HUNK=$<TARGET_FILE:elf2hunk>
        -DSRC=${CMAKE_CURRENT_LIST_DIR}/players/bad/${bad}.S -DWORK=${CMAKE_CURRENT_BINARY_DIR}/elf2hunk_${bad}
        "-DEXPECT=${expect_${bad}}" -P ${CMAKE_CURRENT_LIST_DIR}/players/expect_elf2hunk_error.cmake)
    set_tests_properties(elf2hunk_refuses_${bad} PROPERTIES LABELS unit)
  endforeach()
endif()
