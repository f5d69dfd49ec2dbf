# kelva's tracker players (the ProTracker family, SoundFX, Game Music Creator,
# Images Music System, PolyTracker, Oktalyzer, DIGI Booster) and its MED/OctaMED,
# AHX and HivelyTracker players: the unit tests need them built; the reference
# comparisons (label "reference") render the shared test modules with kelva and
# with openmpt123 or xmp (compare.py's REFERENCE table says which), 60 s each,
# two at a time, and compare lengths and loudness envelopes. They skip (77)
# without a reference program, the shared data or the players.
foreach(p PTK-Prowiz UltimateSoundtracker Soundtracker-IV AudioSculpture SoundFX GameMusicCreator ImagesMusicSystem
          PolyTracker Oktalyzer DIGIBooster MED AHX HivelyTracker)
  if(TARGET kelva_player_${p})
    add_dependencies(kelva_tests kelva_player_${p})
  endif()
endforeach()

add_executable(kelva_render_wav ${CMAKE_CURRENT_LIST_DIR}/reference/kelva_render_wav.cpp)
target_link_libraries(kelva_render_wav PRIVATE kelva_engine)

find_package(Python3 COMPONENTS Interpreter)
function(kelva_tracker_reference name timeout)
  add_test(NAME reference_${name}
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/reference/compare.py $<TARGET_FILE:kelva_render_wav>
      ${KELVA_BUILD_DATA} ${KELVA_SHARED_DIR} ${CMAKE_CURRENT_BINARY_DIR}/reference_${name} ${ARGN})
  set_tests_properties(reference_${name} PROPERTIES LABELS reference SKIP_RETURN_CODE 77 TIMEOUT ${timeout})
endfunction()
if(Python3_Interpreter_FOUND)
  kelva_tracker_reference(ptk 900 --folders=debian,st15,variants,effects,multichannel,startrekker-am)
  kelva_tracker_reference(okt 900 --folders=okt)
  kelva_tracker_reference(other 900 "other/SFX.Crockett's_theme" other/gmc.ingame other/redoctober-sub-docking.ims
    other/rew_vibr.ptm other/pattern_loop_ptm.ptm other/yyde2.digi)
  kelva_tracker_reference(med 1800 --folders=med)
  kelva_tracker_reference(ahx 1800 --folders=ahx,hvl)
endif()
