# kelva's MED/OctaMED, AHX and HivelyTracker players: tests/med_test.cpp and
# tests/ahx_test.cpp need them in the build tree's data tree. The reference
# comparison (label "reference") renders the shared med/, ahx/ and hvl/
# modules with kelva and compares them with the reference compare.py names.
foreach(p MED AHX HivelyTracker)
  if(TARGET kelva_player_${p})
    add_dependencies(kelva_tests kelva_player_${p})
  endif()
endforeach()

find_package(Python3 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND)
  foreach(t med ahx)
    string(REPLACE "ahx" "ahx,hvl" folders ${t})
    add_test(NAME reference_${t}
      COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/reference/compare.py
        $<TARGET_FILE:kelva_render_wav> ${KELVA_BUILD_DATA} ${KELVA_SHARED_DIR}
        ${CMAKE_CURRENT_BINARY_DIR}/reference_${t} --folders=${folders})
    set_tests_properties(reference_${t} PROPERTIES LABELS reference SKIP_RETURN_CODE 77 TIMEOUT 1800)
  endforeach()
endif()
