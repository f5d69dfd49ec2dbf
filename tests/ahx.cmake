# kelva's AHX and HivelyTracker players: the unit tests in tests/ahx_test.cpp
# need them built into the build tree's data tree; the reference comparison
# (label "reference") renders the shared ahx/ and hvl/ songs and compares
# them with the stored envelopes and durations of the format's own replayer.
foreach(p AHX HivelyTracker)
  if(TARGET kelva_player_${p})
    add_dependencies(kelva_tests kelva_player_${p})
  endif()
endforeach()

find_package(Python3 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND)
  add_test(NAME reference_ahx
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/reference/compare.py
      $<TARGET_FILE:kelva_render_wav> ${KELVA_BUILD_DATA} ${KELVA_SHARED_DIR}
      ${CMAKE_CURRENT_BINARY_DIR}/reference_ahx --folders=ahx,hvl)
  set_tests_properties(reference_ahx PROPERTIES LABELS reference SKIP_RETURN_CODE 77 TIMEOUT 900)
endif()
