// The number of threads of parallel regions, for one scope.
#pragma once

#include <omp.h>

namespace orbtest {

class ThreadCount {
 public:
  explicit ThreadCount(int count) : before_(omp_get_max_threads()) { omp_set_num_threads(count); }
  ~ThreadCount() { omp_set_num_threads(before_); }
  ThreadCount(const ThreadCount&) = delete;
  ThreadCount& operator=(const ThreadCount&) = delete;

 private:
  int before_;
};

}  // namespace orbtest
