# kelva's ProTracker-family players: the unit tests in tests/ptk_*_test.cpp
# need the players built into the build tree's data tree; the reference
# comparison (label "reference") renders the family's shared test modules
# with kelva and with openmpt123 and compares lengths and loudness envelopes.
foreach(p PTK-Prowiz UltimateSoundtracker Soundtracker-IV AudioSculpture)
  if(TARGET kelva_player_${p})
    add_dependencies(kelva_tests kelva_player_${p})
  endif()
endforeach()

add_executable(kelva_render_wav ${CMAKE_CURRENT_LIST_DIR}/reference/kelva_render_wav.cpp)
target_link_libraries(kelva_render_wav PRIVATE kelva_engine)

# The reference comparison of the ProTracker family's folders of the shared
# test data against openmpt123 (xmp for the Startrekker AM sounds), 60 s
# each, two at a time. Skips (exit code 77) when a reference program, the
# shared data or the players are missing.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND)
  add_test(NAME reference_ptk
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/reference/compare.py
      $<TARGET_FILE:kelva_render_wav> ${KELVA_BUILD_DATA} ${KELVA_SHARED_DIR}
      ${CMAKE_CURRENT_BINARY_DIR}/reference_ptk --folders=debian,st15,variants,effects,multichannel,startrekker-am)
  set_tests_properties(reference_ptk PROPERTIES LABELS reference SKIP_RETURN_CODE 77 TIMEOUT 900)
endif()
