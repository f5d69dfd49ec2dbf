# kelva-mixcmp: whole songs through the mixer's frame-at-a-time path and the
# per-tick reference side by side, the largest difference per module. A
# developer tool (minutes per folder), not part of ctest.
add_executable(kelva-mixcmp ${CMAKE_CURRENT_LIST_DIR}/mixcmp.cpp)
target_link_libraries(kelva-mixcmp PRIVATE kelva_engine)
