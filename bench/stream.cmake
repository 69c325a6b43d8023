find_package(ZLIB REQUIRED)
qor_add_benchmark(bench_stream bench_stream.cpp LIBS ZLIB::ZLIB Qt5::Core)
