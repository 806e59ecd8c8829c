// The process's CPU time, for the benchmarks' per-operation figures.
#pragma once

#include <time.h>

inline double CpuSeconds() {
  struct timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}
