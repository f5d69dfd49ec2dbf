# Robustness test: a playlist of hostile files played through a headless
# Audacious with kelva's real players and the endlessly looping test player.
# Exit code 77 means Audacious or a player is missing.
if(KELVA_BUILD_PLUGIN AND TARGET kelva_aud)
  add_test(NAME plugin_hostile_files
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/integration/hostile_test.sh
      --plugin $<TARGET_FILE:kelva_aud>
      --players ${CMAKE_BINARY_DIR}/tests/players
      --real-players ${KELVA_BUILD_DATA}/players
      --modules ${KELVA_SHARED_DIR}/testdata/modules)
  set_tests_properties(plugin_hostile_files PROPERTIES
    LABELS integration SKIP_RETURN_CODE 77 TIMEOUT 600 RUN_SERIAL TRUE)
endif()
