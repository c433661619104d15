# The logging seam: fails when a file of SRC outside src/log and src/vrlog
# calls the logging library's writers itself, or when a module's source name
# differs from the one its messages are known by.
file(GLOB_RECURSE sources RELATIVE ${SRC} ${SRC}/*.cpp ${SRC}/*.hpp ${SRC}/*.h ${SRC}/*.c)
set(stray "")
foreach(f ${sources})
  if(f MATCHES "^(log|vrlog)/")
    continue()
  endif()
  file(STRINGS ${SRC}/${f} hits REGEX "(^|[^A-Za-z0-9_])vrlog(_original|_vraw)?[ \t]*\\(")
  foreach(h ${hits})
    string(STRIP "${h}" h)
    if(NOT h MATCHES "^//")
      list(APPEND stray "${f}: ${h}")
    endif()
  endforeach()
endforeach()
if(stray)
  string(REPLACE ";" "\n  " stray "${stray}")
  message(FATAL_ERROR "vrlog called outside the logging seam (use the TOVI_LOG macros):\n  ${stray}")
endif()

# Source names of the modules, as their messages carry them.
set(names
  affinity/tovi_affinity.cpp=tovi_affinity
  avl/tovi_avl.cpp=tovi_avl
  bay/tovi_bay.cpp=tovi_bay
  lwp/tovi_lwp.cpp=tovi_lwp
  cap/tovi_cap.cpp=tovi_cap
  cfg/tovi_cfg.cpp=tovi_cfg
  cfg/tovi_cfg_cst.cpp=tovi_cst
  cfg/tovi_cfg_edit.cpp=tovi_cfg
  cfg/tovi_cfg_node.cpp=tovi_cfg
  cfg/tovi_cfg_parse.cpp=tovi_cfg
  companion/tovi_companion.cpp=tovi_companion
  companion/tovi_companion_kernel.cpp=tovi_companion_kernel
  companion/tovi_companion_user.cpp=tovi_companion_user
  cpu/tovi_cpu.cpp=tovi_cpu
  cpu/tovi_cpu_smp.cpp=tovi_smp
  cpumask/tovi_cpumask.cpp=tovi_cpumask
  cpumask/tovi_cpumask_numa.cpp=tovi_numa
  cpumask/tovi_cpumask_partition.cpp=tovi_cpumask
  crypt/tovi_crypt.cpp=tovi_crypt
  hash/tovi_hash.cpp=tovi_hash
  hugepages/tovi_hugepages.cpp=tovi_hugepages
  init/tovi_init.cpp=tovi_init
  list/tovi_list.cpp=tovi_list
  lock/tovi_lock.cpp=tovi_lock
  mem/tovi_mem.cpp=tovi_mem
  mem/tovi_mem_info.cpp=tovi_mem
  shm/tovi_shm.cpp=tovi_shm_posix
  sysinfo/tovi_sysinfo.cpp=tovi_sysinfo
  sysinfo/tovi_cpuinfo.cpp=tovi_cpuinfo
  cpufreq/tovi_cpufreq.cpp=tovi_cpufreq
  percpu_posix/tovi_percpu_posix.cpp=tovi_percpu_posix
  queue/tovi_queue.cpp=tovi_ring
  rtcsim/tovi_rtcsim.cpp=tovi_rtcsim
  sched/tovi_sched.cpp=tovi_sched
  sched/tovi_sched_wait.cpp=tovi_sem_enhance
  schedwork/tovi_schedwork.cpp=tovi_sched_work
  str/tovi_str.cpp=tovi_str
  timer/tovi_hr_timer.cpp=tovi_hr_timer
  timer/tovi_timer_posix.cpp=tovi_timer_posix
  socket/tovi_socket.cpp=tovi_socket_rule_route
  socket/tovi_socket_bond.cpp=tovi_socket
  socket/tovi_socket_plain.cpp=tovi_socket
  sshd/tovi_sshd.cpp=tovi_sshd
  semaphore/tovi_semaphore.cpp=tovi_sem_enhance
  symbol/tovi_symbol.cpp=tovi_symbol
  syscall/tovi_syscall.cpp=nubo_syscall_main
  syscall/tovi_syscall_server.cpp=nubo_syscall_kernel
  syscall/tovi_syscall_client.cpp=nubo_syscall_linux_user
  xml/tovi_xml.cpp=tovi_xml
  time/tovi_time.cpp=tovi_time
  time/tovi_time_calendar.cpp=tovi_time
  time/tovi_time_table.cpp=tovi_time
  time/tovi_time_zone.cpp=tovi_time
  time/tovi_timeutil.cpp=tovi_timeutil
  time/tovi_timezone.cpp=tovi_timezone
  timer/tovi_timer.cpp=tovi_timer
  timer/tovi_timer_wheel.cpp=tovi_timer_wheel
  thread/tovi_thread_signal.cpp=tovi_sig_calltrace
  thread/tovi_thread_dump.cpp=tovi_dump_stack
  notifier/tovi_notifier.cpp=tovi_notifier
  exception/tovi_exception.cpp=tovi_exception
  reboot/tovi_reboot.cpp=tovi_reboot
  tty/tovi_tty.cpp=tovi_tty)
# Every file of the thread module logs as "tovi_thrd", however it is split.
file(GLOB thread_files RELATIVE ${SRC} ${SRC}/thread/*.cpp)
foreach(f ${thread_files})
  file(STRINGS ${SRC}/${f} inc REGEX "#include \"tovi_log.hpp\"")
  if(inc AND NOT names MATCHES "${f}=")
    list(APPEND names ${f}=tovi_thrd)
  endif()
endforeach()
set(wrong "")
foreach(entry ${names})
  string(REPLACE "=" ";" pair ${entry})
  list(GET pair 0 f)
  list(GET pair 1 want)
  if(NOT EXISTS ${SRC}/${f})
    continue()
  endif()
  file(STRINGS ${SRC}/${f} def REGEX "^#define TOVI_LOG_SOURCE ")
  if(NOT def STREQUAL "#define TOVI_LOG_SOURCE \"${want}\"")
    list(APPEND wrong "${f}: want \"${want}\", have '${def}'")
  endif()
endforeach()
if(wrong)
  string(REPLACE ";" "\n  " wrong "${wrong}")
  message(FATAL_ERROR "source names changed:\n  ${wrong}")
endif()
list(LENGTH names n)
message(STATUS "vrlog only in the seam; ${n} source names as expected")
