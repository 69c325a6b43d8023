#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_triangulate.h>

#include <string>

// Before any triangulation the query structure is empty (node 1 has type 0):
// the query raises instead of reading garbage. Its own program, so that no
// earlier test has triangulated.
TEST(is_point_inside_polygon, RaisesBeforeAnyTriangulation) {
  double p[2] = {0.5, 0.5};
  try {
    is_point_inside_polygon(p);
    ADD_FAILURE() << "no exception";
  } catch (qorException* e) {
    const std::string text = e->what();
    delete e;
    EXPECT_EQ(text.rfind("locate_endpoint: Internal error [file qor_traptree line ", 0), 0u) << text;
  }
}
