# DIGI Booster 1.x, mixed in software.
kelva_add_player(NAME DIGIBooster
                 SOURCES ${CMAKE_CURRENT_LIST_DIR}/DIGIBooster.c ${KELVA_PLAYER_LIB}/swmix.c
                 OUTPUT_DIR ${KELVA_BUILD_DATA}/players)
