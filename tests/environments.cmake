# The environment of the C++ tests. ctest reads this file, because `gtest_discover_tests` can't set a
# property to a list.

# After a finding, a sanitizer changes the exit status in an exit handler. Our programs run no exit
# handlers, so a sanitizer must end them at its first finding. They also end without joining
# threads, so an unjoined thread is not a finding.
set(sanitizers "TSAN_OPTIONS=halt_on_error=1:report_thread_leaks=0" "UBSAN_OPTIONS=print_stacktrace=1")
set_tests_properties(${LUMORA_UNIT_TESTS} ${LUMORA_FAULTY_TESTS} ${LUMORA_SERIAL_TESTS}
  PROPERTIES ENVIRONMENT "${sanitizers};FRAMES=pipe")
set_tests_properties(${LUMORA_MEMORY_TESTS} PROPERTIES ENVIRONMENT "${sanitizers};FRAMES=memory")
