find_package(ZLIB REQUIRED)
# The line scanner is internal to the library: its unit is built into the
# benchmark as well, to measure it alone.
qor_add_benchmark(bench_stream bench_stream.cpp "${PROJECT_SOURCE_DIR}/stream/internal/qor_linescan.cpp"
  LIBS ZLIB::ZLIB Qt5::Core)
target_include_directories(bench_stream PRIVATE "${PROJECT_SOURCE_DIR}/stream")
if(QOR_HAVE_ISAL)
  target_include_directories(bench_stream PRIVATE "${QOR_ISAL_INCLUDE_DIR}")
  target_link_libraries(bench_stream PRIVATE "${QOR_ISAL_LIBRARY}")
  target_compile_definitions(bench_stream PRIVATE QOR_HAVE_ISAL=1)
endif()
