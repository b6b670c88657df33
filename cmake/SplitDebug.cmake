# skorva_split_debug(target): the image ships without its debug information,
# which goes to a file beside it that debuggers find through the link. A loader
# that reads an image whole rather than mapping it (Wine, for the file
# alignment MinGW uses) would otherwise hold all of it in memory: some 20 MiB
# for the program, 5 to 8 MiB for each simulated system DLL, which on Windows
# are mapped images shared by every process.
function(skorva_split_debug target)
  if(NOT CMAKE_OBJCOPY)
    return()
  endif()
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> $<TARGET_FILE:${target}>.debug
    COMMAND ${CMAKE_OBJCOPY} --strip-debug --add-gnu-debuglink=$<TARGET_FILE:${target}>.debug $<TARGET_FILE:${target}>
    VERBATIM)
endfunction()
