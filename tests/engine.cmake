# The engine's end-to-end tests use the test players of tests/players.cmake
# and one of their own: Envelope, a tone whose loudness pattern, stop and
# song end are set by its module (EnvelopeSongEnd: the same with the
# song-end flag).
include(${CMAKE_SOURCE_DIR}/cmake/KelvaPlayer.cmake)
foreach(p Envelope EnvelopeSongEnd)
  kelva_add_player(NAME ${p} SOURCES ${CMAKE_CURRENT_LIST_DIR}/players/${p}.c
    OUTPUT_DIR ${CMAKE_BINARY_DIR}/tests/players)
  if(KELVA_M68K_CC)
    add_dependencies(kelva_tests kelva_player_${p})
  endif()
endforeach()
