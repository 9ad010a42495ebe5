# Sources of the GDB remote protocol back end, for inclusion into the probe
# library target: target_sources(Vorden PRIVATE ${TAVIT_GDB_BACKEND_SOURCES}).
set(TAVIT_GDB_BACKEND_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/rsp.cpp
  ${CMAKE_CURRENT_LIST_DIR}/gdb_client.cpp
  ${CMAKE_CURRENT_LIST_DIR}/gdb_targetdesc.cpp
  ${CMAKE_CURRENT_LIST_DIR}/gdb_backend.cpp)
