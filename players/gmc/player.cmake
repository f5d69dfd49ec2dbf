# Game Music Creator.
kelva_add_player(NAME GameMusicCreator
                 SOURCES ${CMAKE_CURRENT_LIST_DIR}/GameMusicCreator.c
                 OUTPUT_DIR ${KELVA_BUILD_DATA}/players)
