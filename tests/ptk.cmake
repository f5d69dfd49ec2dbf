# kelva's tracker players (the ProTracker family, SoundFX, Game Music Creator,
# Images Music System, PolyTracker, Oktalyzer, DIGI Booster) and its MED/OctaMED,
# AHX and HivelyTracker players: the unit tests need them built;
# tests/reference.cmake compares their renders of the shared test modules with
# the references.
foreach(p PTK-Prowiz UltimateSoundtracker Soundtracker-IV AudioSculpture SoundFX GameMusicCreator ImagesMusicSystem
          PolyTracker Oktalyzer DIGIBooster MED AHX HivelyTracker)
  if(TARGET kelva_player_${p})
    add_dependencies(kelva_tests kelva_player_${p})
  endif()
endforeach()
