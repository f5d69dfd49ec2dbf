# The reference comparison (tests/reference/compare.py): kelva's renders of the shared test modules
# against openmpt123, xmp or stored envelopes; skips (77) without those, the shared data or the players.
find_package(Python3 COMPONENTS Interpreter)
function(kelva_reference name timeout)
  add_test(NAME reference_${name}
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/reference/compare.py $<TARGET_FILE:kelva>
      ${KELVA_BUILD_DATA} ${KELVA_SHARED_DIR} ${CMAKE_CURRENT_BINARY_DIR}/reference_${name} ${ARGN})
  set_tests_properties(reference_${name} PROPERTIES LABELS reference SKIP_RETURN_CODE 77 TIMEOUT ${timeout})
endfunction()
if(Python3_Interpreter_FOUND)
  kelva_reference(ptk 900 --folders=debian,st15,variants,effects,multichannel,startrekker-am)
  kelva_reference(okt 900 --folders=okt)
  kelva_reference(other 900 "other/SFX.Crockett's_theme" other/gmc.ingame other/redoctober-sub-docking.ims
    other/rew_vibr.ptm other/pattern_loop_ptm.ptm other/yyde2.digi)
  kelva_reference(med 1800 --folders=med)
  kelva_reference(ahx 1800 --folders=ahx,hvl)
endif()
