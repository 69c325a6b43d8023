# Geometry benchmarks and their peers: the GLU tessellator, CGAL's
# constrained Delaunay triangulation (headers; its exact predicates need GMP
# and MPFR) and earcut.hpp (a header that no Debian package ships). Every
# peer is optional: a benchmark built without one leaves its cases out and
# says so when it runs.
find_path(QOR_GLU_INCLUDE_DIR GL/glu.h)
find_library(QOR_GLU_LIBRARY GLU)
find_path(QOR_CGAL_INCLUDE_DIR CGAL/Constrained_Delaunay_triangulation_2.h)
find_library(QOR_GMP_LIBRARY gmp)
find_library(QOR_MPFR_LIBRARY mpfr)

set(qor_earcut_default "")
if(EXISTS "${PROJECT_SOURCE_DIR}/../shared/peers/earcut/include/mapbox/earcut.hpp")
  get_filename_component(qor_earcut_default "${PROJECT_SOURCE_DIR}/../shared/peers/earcut/include" ABSOLUTE)
endif()
set(QOR_EARCUT_INCLUDE "${qor_earcut_default}" CACHE PATH
  "Folder that holds mapbox/earcut.hpp, a peer of the geometry benchmarks (empty: built without it)")

set(qor_geometry_peers "")
if(QOR_GLU_INCLUDE_DIR AND QOR_GLU_LIBRARY)
  list(APPEND qor_geometry_peers GLU)
endif()
if(QOR_CGAL_INCLUDE_DIR AND QOR_GMP_LIBRARY AND QOR_MPFR_LIBRARY)
  list(APPEND qor_geometry_peers CGAL)
endif()
if(QOR_EARCUT_INCLUDE AND EXISTS "${QOR_EARCUT_INCLUDE}/mapbox/earcut.hpp")
  list(APPEND qor_geometry_peers earcut)
elseif(QOR_EARCUT_INCLUDE)
  message(WARNING "QOR_EARCUT_INCLUDE (${QOR_EARCUT_INCLUDE}) holds no mapbox/earcut.hpp; "
                  "the geometry benchmarks are built without earcut")
endif()
message(STATUS "qor: geometry benchmark peers: ${qor_geometry_peers}")

# The peers a geometry benchmark is built with, as QOR_HAVE_<PEER>=1.
function(qor_use_geometry_peers target)
  if("GLU" IN_LIST qor_geometry_peers)
    target_include_directories(${target} SYSTEM PRIVATE "${QOR_GLU_INCLUDE_DIR}")
    target_link_libraries(${target} PRIVATE "${QOR_GLU_LIBRARY}")
    target_compile_definitions(${target} PRIVATE QOR_HAVE_GLU=1)
  endif()
  if("CGAL" IN_LIST qor_geometry_peers)
    target_include_directories(${target} SYSTEM PRIVATE "${QOR_CGAL_INCLUDE_DIR}")
    target_link_libraries(${target} PRIVATE "${QOR_MPFR_LIBRARY}" "${QOR_GMP_LIBRARY}")
    target_compile_definitions(${target} PRIVATE QOR_HAVE_CGAL=1)
  endif()
  if("earcut" IN_LIST qor_geometry_peers)
    target_include_directories(${target} SYSTEM PRIVATE "${QOR_EARCUT_INCLUDE}")
    target_compile_definitions(${target} PRIVATE QOR_HAVE_EARCUT=1)
  endif()
  # The random polygons are the ones the tests use.
  target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}/tests/support")
endfunction()

# The triangulator against the peers, on random polygons of 10 to 8,000 vertices.
qor_add_benchmark(bench_triangulate bench_triangulate.cpp)
qor_use_geometry_peers(bench_triangulate)

# Polygon splitting: Split and Divide at 1,000 and 10,000 vertices, against a plain pass over the vertices.
qor_add_benchmark(bench_polysplit bench_polysplit.cpp)

# The ring engine against earcut.hpp, GLU and CGAL on generated map-like polygons, and the fill call against GLU.
qor_add_benchmark(bench_rings bench_rings.cpp)
qor_use_geometry_peers(bench_rings)
