# kelva's MED/OctaMED player: the unit tests in tests/med_*_test.cpp need
# the player built; the reference comparison (label "reference") renders the
# shared MED test modules with kelva and with openmpt123, or xmp where
# compare.py's REFERENCE table names it (MED 2/3/4 songs, synthetic sounds).
if(TARGET kelva_player_MED)
  add_dependencies(kelva_tests kelva_player_MED)
endif()

find_package(Python3 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND)
  add_test(NAME reference_med
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/reference/compare.py
      $<TARGET_FILE:kelva_render_wav> ${KELVA_BUILD_DATA} ${KELVA_SHARED_DIR}
      ${CMAKE_CURRENT_BINARY_DIR}/reference_med --folders=med)
  set_tests_properties(reference_med PROPERTIES LABELS reference SKIP_RETURN_CODE 77 TIMEOUT 1800)
endif()
