# The plugin's host-free parts (file loader, scanner) are unit-tested inside
# kelva_tests; the plugin itself is tested against the real Audacious.
target_link_libraries(kelva_tests PRIVATE kelva_plugin_core)

# Integration test: plays through a headless Audacious with a private
# configuration: the test players, then the build tree's data tree with the
# demo tune and real modules (those parts skip with a message when absent).
# Exit code 77 means Audacious (or a test player) is missing.
if(KELVA_BUILD_PLUGIN AND TARGET kelva_aud)
  add_test(NAME plugin_audacious
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/integration/aud_test.sh
      --plugin $<TARGET_FILE:kelva_aud>
      --players ${CMAKE_BINARY_DIR}/tests/players
      --data ${KELVA_BUILD_DATA}
      --demo ${CMAKE_BINARY_DIR}/demo/demo.mod
      --modules ${KELVA_SHARED_DIR}/testdata/modules)
  set_tests_properties(plugin_audacious PROPERTIES
    LABELS integration SKIP_RETURN_CODE 77 TIMEOUT 600 RUN_SERIAL TRUE)
endif()

# Installed as a user would: `cmake --install` staged under a temporary
# DESTDIR, the layout checked, then the installed tool and the installed
# plugin (in a headless Audacious) used with the installed data tree.
if(KELVA_BUILD_PLUGIN AND TARGET kelva_aud)
  add_test(NAME plugin_install
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/integration/install_test.sh
      --build ${CMAKE_BINARY_DIR}
      --cmake ${CMAKE_COMMAND}
      --demo ${CMAKE_BINARY_DIR}/demo/demo.mod)
  set_tests_properties(plugin_install PROPERTIES
    LABELS integration SKIP_RETURN_CODE 77 TIMEOUT 300 RUN_SERIAL TRUE)
endif()
