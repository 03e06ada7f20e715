# Installs the built tree into a folder of its own, then links the example against it in every way
# that the README names, and runs the results.
function(run)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output ERROR_VARIABLE output
                  RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGN}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

function(expect_hello)
  run(${ARGN})
  if(NOT output STREQUAL "bob got \"hello\"\n")
    message(FATAL_ERROR "${ARGN} printed: ${output}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/root)
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${WORK}/root
    -DEXAMPLE=${EXAMPLE})
run(${CMAKE_COMMAND} --build ${WORK}/build)
expect_hello(${WORK}/build/with_shared)
expect_hello(${WORK}/build/with_static)

file(GLOB pc ${WORK}/root/lib*/pkgconfig ${WORK}/root/lib/*/pkgconfig)
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${pc})
# The package was installed under another prefix than it was configured for.
run(${PKG_CONFIG} --define-variable=prefix=${WORK}/root --cflags --libs tarn)
separate_arguments(flags UNIX_COMMAND "${output}")
run(${CC} ${EXAMPLE} -o ${WORK}/with_pc ${flags})
cmake_path(GET pc PARENT_PATH libdir)
set(ENV{LD_LIBRARY_PATH} ${libdir})
expect_hello(${WORK}/with_pc)
