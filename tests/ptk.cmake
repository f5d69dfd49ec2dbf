# kelva's players and the build tree's data tree (which the selection tests may point KELVA_DATA at): the unit
# tests need them built; tests/reference.cmake compares the players' renders of the shared test modules with
# the references.
foreach(t player_PTK-Prowiz player_UltimateSoundtracker player_Soundtracker-IV player_AudioSculpture player_SoundFX
          player_GameMusicCreator player_ImagesMusicSystem player_PolyTracker player_Oktalyzer player_DIGIBooster
          player_MED player_AHX player_HivelyTracker build_data)
  if(TARGET kelva_${t})
    add_dependencies(kelva_tests kelva_${t})
  endif()
endforeach()
