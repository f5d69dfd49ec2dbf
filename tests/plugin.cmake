# The plugin's host-free parts; the plugin itself meets the real Audacious (integration.cmake).
target_link_libraries(kelva_tests PRIVATE kelva_plugin_core kelva_store)
