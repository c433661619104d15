# Prints one table of every hot path against its peer from the JSON results
# the benchmark programs wrote into DIR (bench_<topic>.json):
#   cmake -DDIR=build/native/bench -P bench/summary.cmake
# ratio = our CPU time / the peer's, from the same run (below 1.0: faster);
# CPU time, as other work on a shared machine inflates the wall-clock times.
# With repetitions the medians are compared, else the single runs. A peer
# written "a,b" is the faster of the two.

# path; our benchmark; the peer benchmark(s); the file that holds them
set(rows
  "ring SP/SC single|pair/spsc/1/tovi|pair/spsc/1/rte_ring|queue"
  "ring MP/MC single|pair/mpmc/1/tovi|pair/mpmc/1/rte_ring|queue"
  "ring SP/SC bulk 8|pair/spsc/8/tovi|pair/spsc/8/rte_ring|queue"
  "ring MP/MC bulk 8|pair/mpmc/8/tovi|pair/mpmc/8/rte_ring|queue"
  "ring SP/SC bulk 32|pair/spsc/32/tovi|pair/spsc/32/rte_ring|queue"
  "ring MP/MC bulk 32|pair/mpmc/32/tovi|pair/mpmc/32/rte_ring|queue"
  "CRC32C 64 B|BM_tovi_crc32c/64|BM_isal_crc32_iscsi/64,BM_crc32c_instruction_loop/64|crc"
  "CRC32C 4 KiB|BM_tovi_crc32c/4096|BM_isal_crc32_iscsi/4096,BM_crc32c_instruction_loop/4096|crc"
  "CRC32C 1 MiB|BM_tovi_crc32c/1048576|BM_isal_crc32_iscsi/1048576,BM_crc32c_instruction_loop/1048576|crc"
  "tovi_time_getnanosec|BM_tovi_time_getnanosec|BM_clock_gettime_monotonic|time"
  "spin lock+unlock|BM_tovi_spinlock/real_time/threads:1|BM_pthread_spinlock/real_time/threads:1|lock"
  "ticket lock+unlock|BM_tovi_tspinlock/real_time/threads:1|BM_ck_spinlock_ticket/real_time/threads:1|lock"
  "timer arm+delete 1 k|BM_arm_delete_tovi/1000|BM_arm_delete_libuv/1000|timer"
  "timer arm+delete 100 k|BM_arm_delete_tovi/100000|BM_arm_delete_libuv/100000|timer"
  "timer arm+delete 1 M|BM_arm_delete_tovi/1000000|BM_arm_delete_libuv/1000000|timer"
  "hash find 1 M keys|BM_tovi_hash_find|BM_glib_find|hash")

set(scale_ns 1)
set(scale_us 1000)
set(scale_ms 1000000)
set(scale_s 1000000000)

# Reads bench_<topic>.json once into time_<name> variables (nanoseconds).
function(load topic)
  set(file "${DIR}/bench_${topic}.json")
  if(NOT EXISTS "${file}")
    return()
  endif()
  file(READ "${file}" json)
  string(JSON count ERROR_VARIABLE err LENGTH "${json}" benchmarks)
  if(err)
    return()
  endif()
  math(EXPR last "${count} - 1")
  foreach(i RANGE ${last})
    string(JSON type GET "${json}" benchmarks ${i} run_type)
    string(JSON name GET "${json}" benchmarks ${i} run_name)
    string(JSON t GET "${json}" benchmarks ${i} cpu_time)
    string(JSON unit GET "${json}" benchmarks ${i} time_unit)
    if(type STREQUAL "aggregate")
      string(JSON agg GET "${json}" benchmarks ${i} aggregate_name)
      if(NOT agg STREQUAL "median")
        continue()
      endif()
      set(kind median)
    else()
      set(kind single)
    endif()
    string(REGEX REPLACE "[^A-Za-z0-9_]" "_" key "${name}")
    # A median wins over single runs; with single runs only, the first.
    if(kind STREQUAL "median" OR NOT DEFINED time_${key})
      set(time_${key} "${t}*${scale_${unit}}" PARENT_SCOPE)
      set(time_${key} "${t}*${scale_${unit}}")
    endif()
  endforeach()
endfunction()

# Floating-point arithmetic is not in CMake: a/b with three decimals, by
# scaling both to integers (picoseconds) first.
function(picos expr out)
  string(REPLACE "*" ";" parts "${expr}")
  list(GET parts 0 value)
  list(GET parts 1 scale)
  string(REGEX MATCH "^([0-9]+)(\\.([0-9]*))?(e([-+]?[0-9]+))?$" ok "${value}")
  if(NOT ok)
    set(${out} 0 PARENT_SCOPE)
    return()
  endif()
  set(int "${CMAKE_MATCH_1}")
  set(frac "${CMAKE_MATCH_3}")
  set(exp "${CMAKE_MATCH_5}")
  if(exp STREQUAL "")
    set(exp 0)
  endif()
  # value = int.frac * 10^exp; picoseconds = value * scale * 1000
  string(LENGTH "${frac}" flen)
  set(digits "${int}${frac}")
  string(REGEX REPLACE "^0+([0-9])" "\\1" digits "${digits}")
  math(EXPR shift "${exp} - ${flen} + 3")
  set(p "${digits}")
  if(shift GREATER 0)
    foreach(k RANGE 1 ${shift})
      string(APPEND p "0")
    endforeach()
  elseif(shift LESS 0)
    math(EXPR cut "0 - ${shift}")
    string(LENGTH "${p}" plen)
    if(cut GREATER_EQUAL plen)
      set(p 0)
    else()
      math(EXPR keep "${plen} - ${cut}")
      string(SUBSTRING "${p}" 0 ${keep} p)
    endif()
  endif()
  math(EXPR p "${p} * ${scale}")
  set(${out} ${p} PARENT_SCOPE)
endfunction()

foreach(topic queue crc time lock timer hash)
  load(${topic})
endforeach()

message("")
message("Hot paths against their peers (ratio = our CPU time / the peer's, same run; below 1.0 is faster)")
message("  path                         ours (ns)     peer (ns)  ratio")
set(worst "")
foreach(row ${rows})
  string(REPLACE "|" ";" f "${row}")
  list(GET f 0 path)
  list(GET f 1 ours)
  list(GET f 2 peers)
  string(REGEX REPLACE "[^A-Za-z0-9_]" "_" ours_key "${ours}")
  if(NOT DEFINED time_${ours_key})
    message("  ${path}: not run")
    continue()
  endif()
  picos("${time_${ours_key}}" our_ps)
  set(peer_ps "")
  string(REPLACE "," ";" peer_list "${peers}")
  foreach(peer ${peer_list})
    string(REGEX REPLACE "[^A-Za-z0-9_]" "_" key "${peer}")
    if(DEFINED time_${key})
      picos("${time_${key}}" ps)
      if(peer_ps STREQUAL "" OR ps LESS peer_ps)
        set(peer_ps ${ps})
      endif()
    endif()
  endforeach()
  if(peer_ps STREQUAL "" OR peer_ps EQUAL 0)
    message("  ${path}: peer not run")
    continue()
  endif()
  math(EXPR milli "(${our_ps} * 1000 + ${peer_ps} / 2) / ${peer_ps}")
  math(EXPR whole "${milli} / 1000")
  math(EXPR part "${milli} % 1000")
  string(LENGTH "${part}" plen)
  if(plen EQUAL 1)
    set(part "00${part}")
  elseif(plen EQUAL 2)
    set(part "0${part}")
  endif()
  # Nanoseconds with two decimals, right-aligned.
  set(cols "")
  foreach(ps ${our_ps} ${peer_ps})
    math(EXPR ns "${ps} / 1000")
    math(EXPR cents "(${ps} % 1000) / 10")
    if(cents LESS 10)
      set(cents "0${cents}")
    endif()
    set(cell "               ${ns}.${cents}")
    string(LENGTH "${cell}" len)
    math(EXPR from "${len} - 14")
    string(SUBSTRING "${cell}" ${from} -1 cell)
    list(APPEND cols "${cell}")
  endforeach()
  list(GET cols 0 a)
  list(GET cols 1 b)
  string(LENGTH "${path}" n)
  set(pad "")
  math(EXPR gap "24 - ${n}")
  if(gap GREATER 0)
    string(REPEAT " " ${gap} pad)
  endif()
  message("  ${path}${pad}${a} ${b}  ${whole}.${part}")
endforeach()
