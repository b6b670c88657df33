# The simulated event collector in process.
target_link_libraries(unit_ecsim PRIVATE ecsim_static)
