# kelva's AHX and HivelyTracker players: one replay core, two names.
set(AHX_DIR ${CMAKE_CURRENT_LIST_DIR})
foreach(p AHX HivelyTracker)
  kelva_add_player(NAME ${p}
                   SOURCES ${AHX_DIR}/${p}.c ${AHX_DIR}/frontend.c ${AHX_DIR}/load.c ${AHX_DIR}/waves.c
                           ${AHX_DIR}/replay.c ${AHX_DIR}/output.c ${KELVA_PLAYER_LIB}/swmix.c
                   OUTPUT_DIR ${KELVA_BUILD_DATA}/players)
endforeach()
