# kelva's ProTracker-family players: the unit tests in tests/ptk_*_test.cpp
# need the players built into the build tree's data tree; the reference
# comparison (label "reference") renders every shared test module with kelva
# and with openmpt123 and compares lengths and loudness envelopes.
foreach(p PTK-Prowiz UltimateSoundtracker Soundtracker-IV)
  if(TARGET kelva_player_${p})
    add_dependencies(kelva_tests kelva_player_${p})
  endif()
endforeach()

add_executable(kelva_render_wav ${CMAKE_CURRENT_LIST_DIR}/reference/kelva_render_wav.cpp)
target_link_libraries(kelva_render_wav PRIVATE kelva_engine)
