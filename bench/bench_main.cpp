// The main of every benchmark executable: the library is brought up as a
// program would, and taken down after the run.
#include <benchmark/benchmark.h>

#include "zel/init/zel_init.h"

int main(int argc, char** argv) {
  {
    zel::CZelInit init;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
  }
  zel::CZelInit::onApplicationExit();
  return 0;
}
