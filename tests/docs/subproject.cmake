# Builds the library as a part of another project: it comes in the kind that the parent builds, alone,
# and installs nothing.
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

function(expect_files root pattern)
  file(GLOB_RECURSE found RELATIVE ${root} ${root}/${pattern})
  list(SORT found)
  if(NOT found STREQUAL "${ARGN}")
    message(FATAL_ERROR "${root} holds ${found}, expected: ${ARGN}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
set(build ${WORK}/build)
# Nothing said is OFF, as for any library of the parent's. One folder, so that the library's sources
# are compiled once.
foreach(shared "" ON)
  run(${CMAKE_COMMAND} -S ${SOURCE} -B ${build} -G ${GENERATOR} -DTARN=${TARN} -DEXAMPLE=${EXAMPLE}
      -DCMAKE_CXX_FLAGS=-O0 -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER}
      "-DBUILD_SHARED_LIBS=${shared}")
  run(${CMAKE_COMMAND} --build ${build} -j 2)
  expect_hello(${build}/app)
  if(shared)
    expect_files(${build}/tarn libtarn.* libtarn.so libtarn.so.1 libtarn.so.${VERSION})
  else()
    expect_files(${build}/tarn libtarn.* libtarn.a)
    file(REMOVE ${build}/tarn/libtarn.a)
  endif()
  run(${CMAKE_COMMAND} --install ${build} --prefix ${WORK}/root${shared})
  expect_files(${WORK}/root${shared} * bin/app)
endforeach()
