# The data tree the selection tests may point KELVA_DATA at.
if(TARGET kelva_build_data)
  add_dependencies(kelva_tests kelva_build_data)
endif()
