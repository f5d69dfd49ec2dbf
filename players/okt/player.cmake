# Oktalyzer: split channels mixed in software.
kelva_add_player(NAME Oktalyzer
                 SOURCES ${CMAKE_CURRENT_LIST_DIR}/Oktalyzer.c ${KELVA_PLAYER_LIB}/swmix.c
                 OUTPUT_DIR ${KELVA_BUILD_DATA}/players)
