# Checks what keeps a kernel tier from leaking wide instructions into the rest of the program:
#
#  - the object of a tier defines and refers to no weak symbol: an inline function compiled there
#    could replace the baseline copy of the whole program at link time and crash an older CPU;
#  - a tier's source and the headers beside it include nothing but those and what is listed below.
#
# Run as: cmake -DNM=nm -DSOURCES=directory -DOBJECTS=file,file,... -DWITHOUT=source
#   -P check_tier_objects.cmake
# A tier is a source of the kernel directory other than the baseline ones; every tier but WITHOUT
# must have been given an object.
cmake_minimum_required(VERSION 3.25)

set(baseline kernel_table.cpp scalar.cpp ${WITHOUT})
file(GLOB own_headers RELATIVE ${SOURCES} ${SOURCES}/*.h)
list(REMOVE_ITEM own_headers kernel_table.h)
set(allowed "<immintrin.h>" "<cstddef>" "<cstdint>")
foreach(header IN LISTS own_headers)
  list(APPEND allowed "\"model/kernels/${header}\"")
endforeach()

string(REPLACE "," ";" objects "${OBJECTS}")
file(GLOB sources RELATIVE ${SOURCES} ${SOURCES}/*.cpp)
list(REMOVE_ITEM sources ${baseline})
if(NOT sources)
  message(FATAL_ERROR "no tier sources in ${SOURCES}")
endif()

foreach(source IN LISTS own_headers sources)
  file(STRINGS ${SOURCES}/${source} includes REGEX "^[ \t]*#[ \t]*include")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*([<\"][^>\"]*[>\"]).*" "\\1" header "${line}")
    if(NOT header IN_LIST allowed)
      message(SEND_ERROR "${source} includes ${header}; a tier may include ${allowed} only")
    endif()
  endforeach()

  if(source IN_LIST own_headers)
    continue()
  endif()

  set(found)
  foreach(object IN LISTS objects)
    if(object MATCHES "/kernels/${source}\\.[a-z]+$")
      set(found ${object})
    endif()
  endforeach()
  if(NOT found)
    message(SEND_ERROR "no object of ${source} among ${OBJECTS}")
    continue()
  endif()
  execute_process(COMMAND ${NM} -C ${found} OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(SEND_ERROR "${NM} fails on ${found}")
  endif()
  # Types W, w, V, v are weak, u is unique (one of many copies is chosen, too).
  string(REGEX MATCHALL "[^\n]* [WwVvu] [^\n]*" weak "${symbols}")
  if(weak)
    string(REPLACE ";" "\n" weak "${weak}")
    message(SEND_ERROR "weak symbols in ${found}:\n${weak}")
  endif()
  message(STATUS "${source} checked")
endforeach()
