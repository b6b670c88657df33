# Decoys of the loaded libraries beside unit_eventlog.exe (its own folder, so no
# other test shares them): the loader must take the System32 copies, never these.
set_target_properties(unit_eventlog PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/eventlog")
foreach(decoy wevtapi wecapi netapi32 ntdsapi)
  add_library(unit_eventlog_decoy_${decoy} SHARED "${dir}/decoy/DecoyWevtapi.cpp")
  set_target_properties(unit_eventlog_decoy_${decoy} PROPERTIES OUTPUT_NAME ${decoy} PREFIX ""
                        RUNTIME_OUTPUT_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/eventlog")
  add_dependencies(unit_eventlog unit_eventlog_decoy_${decoy})
endforeach()
# The simulated collector's variants lacking names, each laid out as a system root.
add_dependencies(unit_eventlog ecsim_no-save ecsim_no-property-no-save ecsim_no-retry)
target_compile_definitions(unit_eventlog PRIVATE ECSIM_VARIANTS_DIR="${ECSIM_VARIANTS_DIR}")
