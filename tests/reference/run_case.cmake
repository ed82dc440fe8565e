# Runs a model on one tier with one number of threads, compares its hidden states with those of the
# reference and its greedy continuation with that of the scalar tier on one thread, which comes first
# and leaves it behind.
#
# cmake -DRUNNER=... -DPYTHON=... -DREFERENCE=orb_reference.py -DMODEL=... -DTOKENS=... -DCOUNT=...
#   -DTIER=... -DTHREADS=... -P run_case.cmake
# MODEL.reference.bin must exist.
cmake_minimum_required(VERSION 3.25)

set(dump ${MODEL}.${TIER}.${THREADS}.bin)
execute_process(
  COMMAND ${RUNNER} run ${MODEL} ${TOKENS} ${dump} ${COUNT} ${TIER} ${THREADS}
  OUTPUT_VARIABLE continuation COMMAND_ERROR_IS_FATAL ANY)
execute_process(
  COMMAND ${PYTHON} ${REFERENCE} compare ${dump} ${MODEL}.reference.bin --tolerance 1e-4
  COMMAND_ERROR_IS_FATAL ANY)
file(REMOVE ${dump})

set(first ${MODEL}.greedy.txt)
if(TIER STREQUAL "scalar" AND THREADS EQUAL 1)
  file(WRITE ${first} "${continuation}")
endif()
file(READ ${first} expected)
if(NOT continuation STREQUAL expected)
  message(FATAL_ERROR "continues with\n${continuation}instead of\n${expected}")
endif()
