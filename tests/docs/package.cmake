# Installs the built tree into a folder of its own, moves that, then links the example against it in
# every way that the README names, and runs the results.
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/installed)
file(RENAME ${WORK}/installed ${WORK}/moved)

# C alone: what the static library needs of C++ comes with the package.
foreach(languages C "C CXX")
  set(build "${WORK}/build ${languages}")
  run(${CMAKE_COMMAND} -S ${SOURCE} -B ${build} -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${WORK}/moved
      -DEXAMPLE=${EXAMPLE} "-DLANGUAGES=${languages}")
  run(${CMAKE_COMMAND} --build ${build})
  expect_hello(${build}/with_shared)
  expect_hello(${build}/with_static)
endforeach()

file(GLOB pc ${WORK}/moved/lib*/pkgconfig ${WORK}/moved/lib/*/pkgconfig)
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${pc})
cmake_path(GET pc PARENT_PATH libdir)

function(link_by_pkg_config program)
  run(${PKG_CONFIG} --cflags --libs ${ARGN} tarn)
  separate_arguments(flags UNIX_COMMAND "${output}")
  run(${CC} ${EXAMPLE} -o ${WORK}/${program} ${ARGN} ${flags})
endfunction()

link_by_pkg_config(with_pc_shared)
link_by_pkg_config(with_pc_static --static)
set(ENV{LD_LIBRARY_PATH} ${libdir})
expect_hello(${WORK}/with_pc_shared)
expect_hello(${WORK}/with_pc_static)
