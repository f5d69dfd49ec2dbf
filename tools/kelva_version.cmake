add_executable(kelva-version ${CMAKE_CURRENT_LIST_DIR}/kelva_version.cpp)
target_link_libraries(kelva-version PRIVATE kelva_engine)
