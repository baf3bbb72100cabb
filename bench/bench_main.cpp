// The main program of every benchmark. It starts the fault manager first: a program that uses the
// library has its signal-handler thread, and locks and allocators of peers are then measured in
// a process with threads as well. And it tells the heap to keep what is freed: whether the heap's
// end is handed back to the kernel and faulted in again in every round depends on what happens to lie
// there, and would hide what is measured.
#include <korvaks/pfm.h>

#include <benchmark/benchmark.h>

#include <malloc.h>

int main(int argc, char **argv)
{
    pfm_init();
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
