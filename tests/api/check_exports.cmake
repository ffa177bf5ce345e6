# Compares the dynamic symbols that libnvbdll.so defines with the list of functions
# implemented so far; any other exported name fails. Nothing in it may raise or carry a
# C++ exception either: it imports no throwing allocation, throw helper or personality.
execute_process(COMMAND nm -D --defined-only --format=just-symbols ${LIBRARY} OUTPUT_VARIABLE symbols
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
# A versioned name reads name@version.
string(REGEX REPLACE "@[^\n]*" "" symbols "${symbols}")
string(REGEX MATCHALL "[^\n]+" exported "${symbols}")
list(SORT exported)
file(STRINGS ${EXPECTED} expected REGEX "^nvbdll_")
list(SORT expected)
if(NOT exported STREQUAL expected)
  set(extra ${exported})
  list(REMOVE_ITEM extra ${expected})
  set(missing ${expected})
  list(REMOVE_ITEM missing ${exported})
  message(FATAL_ERROR "exported symbols differ\n  not expected: ${extra}\n  missing: ${missing}")
endif()
execute_process(COMMAND nm -D --undefined-only ${LIBRARY} OUTPUT_VARIABLE imports)
string(REGEX MATCHALL "(_Znwm|_Znam|__cxa_throw|__cxa_allocate_exception|_ZSt[0-9]+__throw_[a-z_]+|__gxx_personality_v0)(@|\n)"
       throwing "${imports}")
if(throwing)
  message(FATAL_ERROR "the library imports what throws: ${throwing}")
endif()
list(LENGTH exported count)
message(STATUS "${count} nvbdll_ functions exported, nothing else")
