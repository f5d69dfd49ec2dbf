# SoundFX 1.3 and 2.0.
kelva_add_player(NAME SoundFX
                 SOURCES ${CMAKE_CURRENT_LIST_DIR}/SoundFX.c
                 OUTPUT_DIR ${KELVA_BUILD_DATA}/players)
