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

# The ring engine against earcut.hpp, GLU and CGAL on generated map-like polygons, and the fill call against GLU.
# earcut.hpp is header-only and no package ships it: QOR_EARCUT_INCLUDE names the folder that holds
# mapbox/earcut.hpp (for example ../shared/peers/earcut/include); without it that peer is skipped.
set(QOR_EARCUT_INCLUDE "" CACHE PATH "Folder holding mapbox/earcut.hpp, a benchmark peer (empty: skipped)")
qor_add_benchmark(bench_rings bench_rings.cpp LIBS ${QOR_GLU_LIBRARY} ${QOR_MPFR_LIBRARY} ${QOR_GMP_LIBRARY})
target_include_directories(bench_rings PRIVATE "${PROJECT_SOURCE_DIR}/tests/support")
target_compile_definitions(bench_rings PRIVATE QOR_HAVE_GLU=1 QOR_HAVE_CGAL=1)
if(EXISTS "${QOR_EARCUT_INCLUDE}/mapbox/earcut.hpp")
  target_include_directories(bench_rings SYSTEM PRIVATE "${QOR_EARCUT_INCLUDE}")
  target_compile_definitions(bench_rings PRIVATE QOR_HAVE_EARCUT=1)
endif()
