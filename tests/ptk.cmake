# kelva's players and the build tree's data tree, which the unit tests need built.
foreach(t player_PTK-Prowiz player_UltimateSoundtracker player_Soundtracker-IV player_AudioSculpture player_SoundFX
          player_GameMusicCreator player_ImagesMusicSystem player_PolyTracker player_Oktalyzer player_DIGIBooster
          player_MED player_AHX player_HivelyTracker build_data)
  if(TARGET kelva_${t})
    add_dependencies(kelva_tests kelva_${t})
  endif()
endforeach()
