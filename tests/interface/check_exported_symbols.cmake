# Compares the names that a module exports with a list: cmake -D NM= -D MODULE= -D LIST= -P this.
execute_process(
  COMMAND ${NM} -D --defined-only --format=posix ${MODULE}
  OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" symbols "${listing}")
list(TRANSFORM symbols REPLACE " .*" "")
file(STRINGS ${LIST} expected)
list(LENGTH expected count)
if(count EQUAL 0)
  message(FATAL_ERROR "${LIST} is empty")
endif()

set(missing ${expected})
list(REMOVE_ITEM missing ${symbols})
set(unexpected ${symbols})
list(REMOVE_ITEM unexpected ${expected})
if(missing OR unexpected)
  message(FATAL_ERROR "${MODULE}\n  does not export: ${missing}\n  exports besides: ${unexpected}")
endif()
message(STATUS "${count} names")
