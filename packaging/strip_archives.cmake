# Strips debug information from static libraries. CPack itself strips only programs and shared
# libraries.
file(GLOB_RECURSE archives ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.a)
foreach(archive ${archives})
  execute_process(COMMAND ${CPACK_STRIP} --strip-debug ${archive} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
