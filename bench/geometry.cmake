# Triangulator against the GLU tessellator and CGAL's constrained Delaunay
# triangulation (headers; its exact predicates need GMP and MPFR).
find_library(QOR_GLU_LIBRARY GLU REQUIRED)
find_library(QOR_GMP_LIBRARY gmp REQUIRED)
find_library(QOR_MPFR_LIBRARY mpfr REQUIRED)
qor_add_benchmark(bench_triangulate bench_triangulate.cpp
  LIBS ${QOR_GLU_LIBRARY} ${QOR_MPFR_LIBRARY} ${QOR_GMP_LIBRARY})
# The random polygons are the ones the tests use.
target_include_directories(bench_triangulate PRIVATE "${PROJECT_SOURCE_DIR}/tests/support")

# Polygon splitting: Split and Divide at 1,000 and 10,000 vertices, against a plain pass over the vertices.
qor_add_benchmark(bench_polysplit bench_polysplit.cpp)

# The ring entry point against triangulate() on valid polygons, and on the polygon fixtures against GLU and CGAL.
qor_add_benchmark(bench_triangulate_rings bench_triangulate_rings.cpp
  LIBS ${QOR_GLU_LIBRARY} ${QOR_MPFR_LIBRARY} ${QOR_GMP_LIBRARY})
target_include_directories(bench_triangulate_rings PRIVATE "${PROJECT_SOURCE_DIR}/tests/support")
target_compile_definitions(bench_triangulate_rings PRIVATE QOR_BENCH_DATA_DIR="${PROJECT_SOURCE_DIR}/tests/data")
