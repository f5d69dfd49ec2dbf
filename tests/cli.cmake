# The tool's tests run the built kelva, read its audio with libsndfile and its JSON with
# nlohmann/json; the demo tune comes from tools/demotune.cmake.
find_package(nlohmann_json 3 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(KELVA_TEST_SNDFILE REQUIRED IMPORTED_TARGET sndfile)
target_link_libraries(kelva_tests PRIVATE nlohmann_json::nlohmann_json PkgConfig::KELVA_TEST_SNDFILE)
target_compile_definitions(kelva_tests PRIVATE
  KELVA_CLI="$<TARGET_FILE:kelva>"
  KELVA_DEMO_MOD="${CMAKE_BINARY_DIR}/demo/demo.mod")
add_dependencies(kelva_tests kelva kelva_demo_tune)
