# Compiles each piece of C in a document by itself. One that begins with a function, a comment or an
# include is a file's, any other the inside of a function; snippets.h declares what the text assumes.
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

file(REMOVE_RECURSE ${WORK})
file(READ ${DOCUMENT} text)
set(count 0)
string(FIND "${text}" "```c\n" begin)
while(NOT begin EQUAL -1)
  math(EXPR begin "${begin} + 5")
  string(SUBSTRING "${text}" ${begin} -1 text)
  string(FIND "${text}" "```" end)
  string(SUBSTRING "${text}" 0 ${end} piece)
  math(EXPR end "${end} + 3")
  string(SUBSTRING "${text}" ${end} -1 text)

  if(NOT piece MATCHES "^(static |/\\*|#include)")
    set(piece "#include \"snippet_callbacks.h\"\nvoid piece(void);\nvoid piece(void) {\n${piece}}\n")
  endif()
  math(EXPR count "${count} + 1")
  file(WRITE ${WORK}/piece_${count}.c "#include \"snippets.h\"\n${piece}")
  run(${CC} -std=c99 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Werror -Wno-unused -fsyntax-only
      -I${INCLUDE} -I${CMAKE_CURRENT_LIST_DIR} ${WORK}/piece_${count}.c)
  string(FIND "${text}" "```c\n" begin)
endwhile()
if(count LESS 2)
  message(FATAL_ERROR "only ${count} pieces of C in ${DOCUMENT}")
endif()
