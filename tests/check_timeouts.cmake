# Fails unless every test of the build has a time-out of its own of at most
# 60 s: a hang must fail fast with its name instead of eating the whole run.
#   cmake -DCTEST=<ctest> -DBUILD=<build dir> -P check_timeouts.cmake
execute_process(COMMAND ${CTEST} --test-dir ${BUILD} --show-only=json-v1 OUTPUT_VARIABLE json)
string(JSON count LENGTH "${json}" tests)
# ctest writes each property as a name line followed by its value line.
string(REGEX MATCHALL "\"TIMEOUT\",[ \n]*\"value\" : ([1-5]?[0-9]|60)(\\.0)?\n" bounded "${json}")
list(LENGTH bounded limited)
if(count EQUAL 0 OR NOT count EQUAL limited)
  message(FATAL_ERROR "${limited} of ${count} tests have a time-out of at most 60 s")
endif()
