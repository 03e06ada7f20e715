# What the tests of packages share.

# Runs a command that has to succeed; `output` is what it printed.
function(run)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output ERROR_VARIABLE output
                  RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGN}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

# Runs the example.
function(expect_hello)
  run(${ARGN})
  if(NOT output STREQUAL "bob got \"hello\"\n")
    message(FATAL_ERROR "${ARGN} printed: ${output}")
  endif()
endfunction()
