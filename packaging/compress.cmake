# What Debian wants compressed in a package.
file(GLOB_RECURSE files ${CPACK_TEMPORARY_DIRECTORY}/*)
foreach(file IN LISTS files)
  if(file MATCHES "/share/(man/.*\\.1|doc/.*/changelog)$")
    execute_process(COMMAND gzip -9n ${file} COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
