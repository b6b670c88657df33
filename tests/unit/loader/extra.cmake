# A decoy wevtapi.dll beside unit_loader.exe (its own folder, so no other test
# shares the decoy): the loader must take the System32 copy, never this one.
set_target_properties(unit_loader PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/loader")
add_library(unit_loader_decoy SHARED "${dir}/decoy/DecoyWevtapi.cpp")
set_target_properties(unit_loader_decoy PROPERTIES OUTPUT_NAME wevtapi PREFIX ""
                      RUNTIME_OUTPUT_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/loader")
add_dependencies(unit_loader unit_loader_decoy)
