# Compares the dynamic symbols that a library defines with a checked-in list: cmake -DNM= -DLIBRARY= -DEXPECTED= -P ...
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" lines "${output}")
set(found "")
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^[0-9a-f]+ +" "" symbol "${line}") # type and name
  list(APPEND found "${symbol}")
endforeach()
list(SORT found)
file(STRINGS ${EXPECTED} expected)
list(SORT expected)
if(NOT "${found}" STREQUAL "${expected}")
  message(FATAL_ERROR "${LIBRARY} defines\n  ${found}\nand should define\n  ${expected}")
endif()
