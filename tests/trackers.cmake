# kelva's SoundFX, Game Music Creator, Images Music System, PolyTracker,
# Oktalyzer and DIGI Booster players: tests/trackers_test.cpp needs them
# built; the reference comparison renders their modules of the shared
# "other" and "okt" folders with kelva and with openmpt123 or xmp
# (compare.py's REFERENCE table says which).
foreach(p SoundFX GameMusicCreator ImagesMusicSystem PolyTracker Oktalyzer DIGIBooster)
  if(TARGET kelva_player_${p})
    add_dependencies(kelva_tests kelva_player_${p})
  endif()
endforeach()

if(Python3_Interpreter_FOUND)
  add_test(NAME reference_other
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/reference/compare.py
      $<TARGET_FILE:kelva_render_wav> ${KELVA_BUILD_DATA} ${KELVA_SHARED_DIR}
      ${CMAKE_CURRENT_BINARY_DIR}/reference_other
      "other/SFX.Crockett's_theme" other/gmc.ingame other/redoctober-sub-docking.ims
      other/rew_vibr.ptm other/pattern_loop_ptm.ptm other/yyde2.digi)
  set_tests_properties(reference_other PROPERTIES LABELS reference SKIP_RETURN_CODE 77 TIMEOUT 900)
  add_test(NAME reference_okt
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/reference/compare.py
      $<TARGET_FILE:kelva_render_wav> ${KELVA_BUILD_DATA} ${KELVA_SHARED_DIR}
      ${CMAKE_CURRENT_BINARY_DIR}/reference_okt --folders=okt)
  set_tests_properties(reference_okt PROPERTIES LABELS reference SKIP_RETURN_CODE 77 TIMEOUT 900)
endif()
