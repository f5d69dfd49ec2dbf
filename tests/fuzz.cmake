# Replays of the fuzz corpora (fuzz/corpus/<target>): every seed and every
# reproducer of a past finding runs through its target (kelva_fuzz_<target>,
# built by fuzz/CMakeLists.txt) once. In an AddressSanitizer build a read past
# a buffer fails the test; a hang runs into the timeout. libFuzzer programs
# get -runs=0 (run the corpus, no fuzzing); the plain runners ignore it.
file(GLOB KELVA_FUZZ_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/fuzz/*_fuzz.cpp)
foreach(src ${KELVA_FUZZ_SOURCES})
  get_filename_component(name ${src} NAME_WE)
  string(REGEX REPLACE "_fuzz$" "" name ${name})
  set(corpus ${CMAKE_SOURCE_DIR}/fuzz/corpus/${name})
  if(EXISTS ${corpus})
    add_test(NAME fuzz_corpus_${name} COMMAND kelva_fuzz_${name} -runs=0 ${corpus})
    set_tests_properties(fuzz_corpus_${name} PROPERTIES LABELS "unit;fuzz" TIMEOUT 900)
  endif()
endforeach()
