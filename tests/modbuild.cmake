# The module-image builder used by the selection tests, and the data tree the
# tests may point KELVA_DATA at.
target_sources(kelva_tests PRIVATE ${CMAKE_CURRENT_LIST_DIR}/support/modbuild.cpp)
if(TARGET kelva_build_data)
  add_dependencies(kelva_tests kelva_build_data)
endif()
