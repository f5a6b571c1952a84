# logprobe.exe: drives the file log writer once per process. Tests copy it into
# a folder of their own beside a "Holmlog.ini" and read what it wrote.
add_executable(logprobe ${CMAKE_CURRENT_LIST_DIR}/logprobe.cpp)
target_link_libraries(logprobe PRIVATE kwcore)
if(TARGET test_diag)
  add_dependencies(test_diag logprobe)
endif()

# logprobelib.dll: the file log writer inside a DLL that logprobe.exe loads and
# unloads, to show that the background writer never outlives its code.
add_library(logprobelib SHARED ${CMAKE_CURRENT_LIST_DIR}/logprobe_lib.cpp)
target_link_libraries(logprobelib PRIVATE kwcore)
set_target_properties(logprobelib PROPERTIES PREFIX "")
add_dependencies(logprobe logprobelib)
