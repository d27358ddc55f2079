# Every long option the program's entry acts on is in `tarry --help` (and so in the manual page,
# which is written from the same table).
#   cmake -DTARRY=... -DENTRY=main/cli/main.cpp -P help_lists_every_option.cmake
file(READ ${ENTRY} source)
string(REGEX MATCHALL "\"--[a-z][a-z-]*\"" options "${source}")
list(REMOVE_DUPLICATES options)
if(NOT options)
  message(FATAL_ERROR "found no options in ${ENTRY}")
endif()
execute_process(COMMAND ${TARRY} --help OUTPUT_VARIABLE help RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "tarry --help failed (${status})")
endif()
foreach(quoted IN LISTS options)
  string(REPLACE "\"" "" option ${quoted})
  if(NOT help MATCHES "\n  tarry ${option}[ \n]")
    message(FATAL_ERROR "${ENTRY} acts on ${option}, which tarry --help does not list:\n${help}")
  endif()
endforeach()
