# The simulated event collector in process (CollectorCheckTest).
target_link_libraries(unit_channel PRIVATE ecsim_static)
