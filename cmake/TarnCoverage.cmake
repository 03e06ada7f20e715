# Included by the preset that measures coverage, as CMAKE_PROJECT_tarn_INCLUDE.
#
# The library throws nothing and catches nothing. Without this the compiler adds a branch to nearly
# every call, for the clean-up after an exception that never comes, and the figure for the branches
# says little about those that were written. The tests of the kit are compiled alike: most of it is
# templates, which only they use in every form.
function(tarn_compile_without_exceptions)
  target_compile_options(tarn_objects PRIVATE -fno-exceptions)
  file(GLOB kit_tests ${PROJECT_SOURCE_DIR}/tests/oxutils/*_test.cpp)
  set_source_files_properties(${kit_tests} TARGET_DIRECTORY tarn_unit_tests
                              PROPERTIES COMPILE_OPTIONS -fno-exceptions)
endfunction()
cmake_language(DEFER CALL tarn_compile_without_exceptions)
