# The simulated event collector in process, its DLL variants (loaded by path), and
# the demo's subscription list.
target_link_libraries(unit_ecsim PRIVATE ecsim_static)
add_dependencies(unit_ecsim ecsim_no-save ecsim_no-property-no-save ecsim_no-retry)
target_compile_definitions(unit_ecsim PRIVATE
  ECSIM_VARIANTS_DIR="${ECSIM_VARIANTS_DIR}"
  ECSIM_EXAMPLE_SUBSCRIPTIONS="${CMAKE_SOURCE_DIR}/examples/store/collector/subscriptions.txt")
