# Polygon splitting: Split and Divide at 1,000 and 10,000 vertices, against a plain pass over the vertices.
qor_add_benchmark(BM_geometry_polysplit geometry_polysplit.cpp)
