# The engine's end-to-end tests use the test players of tests/players.cmake
# and one of their own: Envelope, a tone whose loudness pattern, stop and
# song end are set by its module.
include(${CMAKE_SOURCE_DIR}/cmake/KelvaPlayer.cmake)
kelva_add_player(NAME Envelope SOURCES ${CMAKE_CURRENT_LIST_DIR}/players/Envelope.c
  OUTPUT_DIR ${CMAKE_BINARY_DIR}/tests/players)
if(KELVA_M68K_CC)
  add_dependencies(kelva_tests kelva_player_Envelope)
endif()
