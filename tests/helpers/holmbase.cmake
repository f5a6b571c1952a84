# A stand-in for the host's base library: a DLL whose file name is exactly
# HolmBase.dll, exporting CreateHolmObject (undecorated stdcall) and counters
# that let tests see each conversion made through it.
add_library(holmbase_standin SHARED ${CMAKE_CURRENT_LIST_DIR}/holmbase.cpp)
set_target_properties(holmbase_standin PROPERTIES PREFIX "" OUTPUT_NAME HolmBase SUFFIX ".dll")
# Exports keep their plain names (CreateHolmObject, not CreateHolmObject@8).
target_link_options(holmbase_standin PRIVATE -Wl,--kill-at)
if(TARGET test_rules)
  add_dependencies(test_rules holmbase_standin)
endif()
