# PolyTracker, mixed in software.
kelva_add_player(NAME PolyTracker
                 SOURCES ${CMAKE_CURRENT_LIST_DIR}/PolyTracker.c ${KELVA_PLAYER_LIB}/swmix.c
                 OUTPUT_DIR ${KELVA_BUILD_DATA}/players)
