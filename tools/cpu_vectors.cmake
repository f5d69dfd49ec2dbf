# kelva-cpu-vectors: the single-step processor vector runner, and its ctest
# entry over the shared vector folder (skipped when the folder is absent).
add_executable(kelva-cpu-vectors ${CMAKE_CURRENT_SOURCE_DIR}/cpu_vectors.cpp)
target_link_libraries(kelva-cpu-vectors PRIVATE kelva_engine)
set_target_properties(kelva-cpu-vectors PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})

add_test(NAME cpu_vectors
  COMMAND kelva-cpu-vectors --skip-missing ${KELVA_SHARED_DIR}/testdata/m68000)
set_tests_properties(cpu_vectors PROPERTIES LABELS vectors SKIP_RETURN_CODE 77)
