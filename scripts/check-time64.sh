#!/usr/bin/env bash
# Fails when a 32-bit x86 library imports a time or file-status function that works with a 32-bit
# time_t: such calls fail or wrap after 2038-01-19 (a login request with a wrong time, a certificate
# renewed then that cannot be read). Built with _TIME_BITS=64, the library's own calls go to glibc's
# 64-bit entry points (__clock_gettime64, __stat64_time64, ...); libstdc++'s clocks and file queries
# have no such entry points on Debian's i386, so they must not be imported at all.
#   scripts/check-time64.sh LIBRARY
set -euo pipefail
library=${1:?usage: check-time64.sh LIBRARY}

# glibc's functions that have a 64-bit time variant, by their 32-bit names.
glibc_time32='adjtime adjtimex aio_suspend clock_adjtime clock_getres clock_gettime clock_nanosleep
clock_settime cnd_timedwait ctime ctime_r difftime fcntl fcntl64 fstat fstat64 fstatat fstatat64
futimens futimes futimesat getitimer getrusage getsockopt gettimeofday gmtime gmtime_r ioctl localtime
localtime_r lstat lstat64 lutimes mktime mq_timedreceive mq_timedsend msgctl nanosleep ntp_adjtime
ntp_gettime ntp_gettimex ppoll pselect pthread_clockjoin_np pthread_cond_clockwait
pthread_cond_timedwait pthread_mutex_clocklock pthread_mutex_timedlock pthread_rwlock_clockrdlock
pthread_rwlock_clockwrlock pthread_rwlock_timedrdlock pthread_rwlock_timedwrlock pthread_timedjoin_np
recvmmsg recvmsg sched_rr_get_interval select sem_clockwait sem_timedwait semctl semtimedop sendmmsg
sendmsg setitimer setsockopt settimeofday shmctl sigtimedwait stat stat64 statx stime thrd_sleep time
timegm timelocal timer_gettime timer_settime timerfd_gettime timerfd_settime timespec_get
timespec_getres utime utimensat utimes wait3 wait4 __xstat __xstat64 __fxstat __fxstat64 __lxstat
__lxstat64 __fxstatat __fxstatat64'

description=$(file -L "$library")
case $description in
  *"ELF 32-bit LSB shared object, Intel 80386"*) ;;
  *) echo "check-time64: $library is not a 32-bit x86 library" >&2; exit 2 ;;
esac

imports=$(nm -D --undefined-only "$library" | awk '{ print $NF }' | sed 's/@.*//')
found=()
for name in $glibc_time32; do
  if grep -qxF -- "$name" <<<"$imports"; then found+=("$name (glibc)"); fi
done
# libstdc++: its clocks, its sleep and every file-system query (they call stat); paths and the error
# type are plain data.
while IFS= read -r symbol; do
  [ -n "$symbol" ] && found+=("$symbol (libstdc++)")
done < <(c++filt <<<"$imports" |
  grep -E '^std::chrono::.*::now\(\)|^std::this_thread::__sleep|^std::(__cxx11::)?(condition_variable|timed_mutex|recursive_timed_mutex)|^std::filesystem::' |
  grep -vE '^std::filesystem::(__cxx11::)?(path|filesystem_error)::' || true)

if [ ${#found[@]} -gt 0 ]; then
  echo "check-time64: $library imports 32-bit time interfaces, wrong after 2038-01-19:" >&2
  printf '  %s\n' "${found[@]}" >&2
  exit 1
fi
echo "check-time64: no 32-bit time or file-status import; 64-bit ones:" $(grep -E '^__[a-z0-9_]+(64|_time64)(_r)?$' <<<"$imports" | sort)
