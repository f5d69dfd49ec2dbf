# elf2hunk: converts the cross linker's output into AmigaOS hunk executables.
# The player build (cmake/KelvaPlayer.cmake) runs it for every player.
add_executable(elf2hunk ${CMAKE_CURRENT_LIST_DIR}/elf2hunk.cpp)
