# Fails when the library calls a function of the system that can neither be made to fail here nor
# stands in the list below. Variables: NM, ARCHIVE, POINTS (comma-separated).

set(cannot_fail
  # Work on memory alone.
  memcmp memcpy memmove memset strcmp strlen tolower snprintf vsnprintf inet_addr inet_ntop inet_pton
  # Fail by a caller's mistake alone; a lock that its thread holds already is met on purpose.
  sigfillset pthread_sigmask pthread_self pthread_join pthread_mutex_lock pthread_mutex_unlock pthread_mutex_trylock
  pthread_mutex_destroy pthread_cond_broadcast pthread_cond_destroy pthread_condattr_destroy
  sem_init sem_post sem_destroy sched_yield gettimeofday clock_gettime
  # Tell of a failure, or end the process.
  puts write abort
  # Of a wait that the I/O thread does not use; its failure has a test of its own.
  select)

string(REPLACE "," ";" points "${POINTS}")
execute_process(COMMAND ${NM} -u ${ARCHIVE} OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "U [a-z][a-z0-9_]*" called "${listing}")
list(TRANSFORM called REPLACE "^U " "")
list(REMOVE_DUPLICATES called)
list(FILTER called EXCLUDE REGEX "^(tarn_|in6addr_any)")
list(LENGTH called count)
if(count LESS 30)
  message(FATAL_ERROR "cannot read what ${ARCHIVE} calls: ${called}")
endif()
list(REMOVE_ITEM called ${points} ${cannot_fail})
if(called)
  message(FATAL_ERROR "no fault is tried at: ${called}")
endif()
