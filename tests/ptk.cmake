# kelva's players and the build tree's data tree, which the unit tests need built.
get_property(kelva_players DIRECTORY ${CMAKE_SOURCE_DIR}/players PROPERTY BUILDSYSTEM_TARGETS)
add_dependencies(kelva_tests ${kelva_players} kelva_build_data)
