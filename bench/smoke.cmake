# Smoke run of the benchmark programs with tiny sizes (ctest label "bench").
# cmake -DBENCH=... -DPEERS=... -DCOUNT=... -DMEMORY=... -DNULLRT_DIR=... -P smoke.cmake

function(run_checked what expect)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what}: exit ${rc}\n${out}\n${err}")
  endif()
  if(out MATCHES "ERROR OCCURRED")
    message(FATAL_ERROR "${what}: a benchmark reported an error\n${out}")
  endif()
  if(NOT out MATCHES "${expect}")
    message(FATAL_ERROR "${what}: output does not match '${expect}'\n${out}\n${err}")
  endif()
  message(STATUS "${what}: ok")
  set(out "${out}" PARENT_SCOPE)
endfunction()

run_checked("zel_bench" "inference/mobilenet:16"
            ${BENCH} --zel_tiny --benchmark_min_time=0.001)

run_checked("zel_bench_peers" "sim/mobilenet/threads:2" ${PEERS} --zel_tiny --zel_size=32)

foreach(scenario support prepare prepare-validated execute execute-direct version-direct)
  run_checked("zel_bench_count ${scenario}" "scenario=${scenario} graph=mobilenet:16 k=2 operations=29"
              ${COUNT} ${scenario} mobilenet:16 2)
endforeach()
run_checked("zel_bench_count chain" "scenario=prepare graph=chain:10 k=1 operations=10" ${COUNT} prepare chain:10 1)
run_checked("zel_bench_count wide" "scenario=support graph=wide:100K k=1 operations=1" ${COUNT} support wide:100K 1)

# Every weight byte must reach the runtime, and the heap counter must see
# the preparation at all.
run_checked("zel_bench_memory" "graph=wide:100K largest=[0-9]+ peak=[1-9][0-9]* retained=-?[0-9]+ handed=[0-9]+"
            ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${NULLRT_DIR} ${MEMORY} mobilenet:16 wide:100K)
string(REGEX MATCH "graph=wide:100K largest=([0-9]+) peak=[0-9]+ retained=-?[0-9]+ handed=([0-9]+)" line "${out}")
if(CMAKE_MATCH_2 LESS CMAKE_MATCH_1)
  message(FATAL_ERROR "zel_bench_memory: the runtime received ${CMAKE_MATCH_2} bytes, "
                      "fewer than the ${CMAKE_MATCH_1} weight bytes\n${out}")
endif()
