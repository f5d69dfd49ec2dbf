# The integration tests (tests/integration/): kelva's plugin in a headless Audacious with the test
# players and the build's data tree, fed hostile files, and installed as a user would. Exit code 77:
# Audacious, a player or the demo tune missing (parts that need the shared modules say they skip).
if(KELVA_BUILD_PLUGIN AND TARGET kelva_aud)
  set(args --plugin $<TARGET_FILE:kelva_aud> --players ${CMAKE_BINARY_DIR}/tests/players --data ${KELVA_BUILD_DATA}
      --demo ${CMAKE_BINARY_DIR}/demo/demo.mod --modules ${KELVA_SHARED_DIR}/testdata/modules)
  add_test(NAME plugin_audacious COMMAND ${CMAKE_CURRENT_LIST_DIR}/integration/aud_test.sh ${args})
  add_test(NAME plugin_hostile_files COMMAND ${CMAKE_CURRENT_LIST_DIR}/integration/hostile_test.sh ${args})
  add_test(NAME plugin_install COMMAND ${CMAKE_CURRENT_LIST_DIR}/integration/install_test.sh
    --build ${CMAKE_BINARY_DIR} --cmake ${CMAKE_COMMAND} --demo ${CMAKE_BINARY_DIR}/demo/demo.mod)
  set_tests_properties(plugin_audacious plugin_hostile_files plugin_install PROPERTIES
    LABELS integration SKIP_RETURN_CODE 77 TIMEOUT 600 RUN_SERIAL TRUE)
endif()
