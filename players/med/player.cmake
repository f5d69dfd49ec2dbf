# kelva's MED/OctaMED player (MED 2/3/4 songs, MMD0-MMD3 modules).
set(MED_DIR ${CMAKE_CURRENT_LIST_DIR})
kelva_add_player(NAME MED
                 SOURCES ${MED_DIR}/frontend.c ${MED_DIR}/load.c ${MED_DIR}/oldmed.c ${MED_DIR}/replay.c
                         ${MED_DIR}/output.c ${KELVA_PLAYER_LIB}/swmix.c
                 OUTPUT_DIR ${KELVA_BUILD_DATA}/players)
