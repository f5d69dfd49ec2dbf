# The plugin's host-free parts (file loader, scanner) are unit-tested inside
# kelva_tests; the plugin itself is tested against the real Audacious
# (tests/integration.cmake).
target_link_libraries(kelva_tests PRIVATE kelva_plugin_core)
