# The demo tune: a four-channel ProTracker module composed for kelva, built
# from its text description (tools/demotune/demo.song) by a small generator
# that also synthesises its samples. The module lands in <build>/demo/ and is
# installed to <prefix>/share/kelva/demo.mod.
add_executable(kelva_demotune ${CMAKE_CURRENT_LIST_DIR}/demotune/demotune.cpp)

set(KELVA_DEMO_SONG ${CMAKE_CURRENT_LIST_DIR}/demotune/demo.song)
set(KELVA_DEMO_MOD ${CMAKE_BINARY_DIR}/demo/demo.mod)
add_custom_command(
  OUTPUT ${KELVA_DEMO_MOD}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/demo
  COMMAND kelva_demotune ${KELVA_DEMO_SONG} ${KELVA_DEMO_MOD}
  DEPENDS kelva_demotune ${KELVA_DEMO_SONG}
  COMMENT "Building the demo tune ${KELVA_DEMO_MOD}")
add_custom_target(kelva_demo_tune ALL DEPENDS ${KELVA_DEMO_MOD})

install(FILES ${KELVA_DEMO_MOD} DESTINATION ${CMAKE_INSTALL_DATADIR}/kelva)
