# Allocator benchmarks. The peer allocators (jemalloc, tcmalloc, mimalloc)
# are loaded at run time with dlopen, so that none of them replaces the
# process's malloc; a peer that is not installed is left out of the run.
qor_add_benchmark(bench_memory bench_memory.cpp LIBS ${CMAKE_DL_LIBS})
