# Images Music System.
kelva_add_player(NAME ImagesMusicSystem
                 SOURCES ${CMAKE_CURRENT_LIST_DIR}/ImagesMusicSystem.c
                 OUTPUT_DIR ${KELVA_BUILD_DATA}/players)
