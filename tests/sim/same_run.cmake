# The hash of everything that happens is the same in two runs of a seed, each in a process of its
# own, and differs from one seed to the next.
#   cmake -D SIM=tarn-sim -P same_run.cmake
cmake_minimum_required(VERSION 3.20)

set(hashes "")
foreach(words "--seed 1" "--seed 2" "--seed 3" "--seed 4" "--seed 5" "--seed 6" "--seed 7" "--seed 8"
        "--plan storm" "--plan storm --seed 2" "--plan clock_steps" "--plan sockets" "--plan listener"
        "--plan streams" "--plan controlled" "--plan slow_reader")
  separate_arguments(arguments UNIX_COMMAND "${words}")
  foreach(run first second)
    execute_process(COMMAND ${SIM} ${arguments} --hash OUTPUT_VARIABLE ${run}
                    RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR "tarn-sim ${words} fails")
    endif()
  endforeach()
  if(NOT first STREQUAL second)
    message(FATAL_ERROR "tarn-sim ${words}: ${first} and then ${second}")
  endif()
  if(first IN_LIST hashes)
    message(FATAL_ERROR "tarn-sim ${words} does what another run did")
  endif()
  list(APPEND hashes "${first}")
endforeach()
