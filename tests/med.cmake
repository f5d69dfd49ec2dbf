# kelva's MED/OctaMED, AHX and HivelyTracker players: tests/med_test.cpp and
# tests/ahx_test.cpp need them in the build tree's data tree (their reference
# comparison is in tests/reference.cmake).
foreach(p MED AHX HivelyTracker)
  if(TARGET kelva_player_${p})
    add_dependencies(kelva_tests kelva_player_${p})
  endif()
endforeach()
