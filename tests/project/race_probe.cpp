// A parallel region whose threads write apart from one another and, when asked, one place at once.
#include <omp.h>

#include <cstdio>
#include <vector>

int main(int argc, char**) {
  constexpr int kThreads = 2;
  constexpr int kShare = 1000;
  std::vector<int> apart(kThreads * kShare);
  int together = 0;
  int sum = 0;
  for (int round = 0; round < 100; ++round) {
#pragma omp parallel num_threads(kThreads)
    {
      const int begin = omp_get_thread_num() * kShare;
      for (int i = begin; i < begin + kShare; ++i) {
        apart[static_cast<size_t>(i)] += 1;
      }
      if (argc > 1) {
        together += 1;
      }
    }
    for (const int value : apart) {
      sum += value;
    }
  }
  std::printf("%d %d\n", sum, together);
}
