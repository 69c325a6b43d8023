#include <dirent.h>
#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_triangulate.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/polygon_generator.h"
#include "triangulate_check.h"

namespace {

const std::string kDir = std::string(QOR_TEST_DATA_DIR) + "/geometry/polygons/";

// Reads a JSON array of rings of [x, y] pairs.
polygen::Polygon readFixture(const std::string& name) {
  std::ifstream in(kDir + name);
  std::stringstream buffer;
  buffer << in.rdbuf();
  const std::string text = buffer.str();
  polygen::Polygon p;
  int depth = 0;
  std::vector<double> numbers;
  for (size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (c == '[') {
      ++depth;
      if (depth == 2) p.contours.emplace_back();
      ++i;
    } else if (c == ']') {
      if (depth == 3 && numbers.size() >= 2) p.contours.back().push_back({numbers[0], numbers[1]});
      numbers.clear();
      --depth;
      ++i;
    } else if (c == '-' || c == '+' || c == '.' || std::isdigit(static_cast<unsigned char>(c))) {
      char* end = nullptr;
      numbers.push_back(std::strtod(text.c_str() + i, &end));
      i = static_cast<size_t>(end - text.c_str());
    } else {
      ++i;
    }
  }
  return p;
}

// Drops repeated consecutive points (the closing one too) and rings of
// fewer than three points; ring 0 runs counter-clockwise, the others clockwise.
polygen::Polygon normalize(const polygen::Polygon& raw) {
  polygen::Polygon p;
  for (size_t r = 0; r < raw.contours.size(); ++r) {
    polygen::Contour c;
    for (const auto& q : raw.contours[r])
      if (c.empty() || c.back().x != q.x || c.back().y != q.y) c.push_back(q);
    while (c.size() > 1 && c.front().x == c.back().x && c.front().y == c.back().y) c.pop_back();
    if (c.size() < 3) {
      if (r == 0) return polygen::Polygon();
      continue;
    }
    const bool ccw = polygen::twiceSignedArea(c) > 0;
    if (ccw != (r == 0)) std::reverse(c.begin(), c.end());
    p.contours.push_back(c);
  }
  return p;
}

std::vector<std::string> fixtureNames() {
  std::vector<std::string> names;
  if (DIR* dir = opendir(kDir.c_str())) {
    while (dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0) names.push_back(name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Fixtures that are simple polygons with disjoint interior holes once
// normalised, with their triangle counts.
const std::set<std::string> kSimple = {
    "building.json", "dude.json",    "sample-outline.json", "eberly-6.json", "filtered-bridge-jhl.json",
    "hilbert.json",  "issue16.json", "issue17.json",        "issue29.json",  "issue34.json",
    "issue35.json",  "issue52.json", "steiner.json"};

}  // namespace

// Real-world simple polygons (outlines, holes, Hilbert curve with collinear
// runs) triangulate exactly: catches failures that random shapes miss.
TEST(triangulateFixtures, SimplePolygonsTriangulateExactly) {
  int run = 0;
  for (const std::string& name : fixtureNames()) {
    if (!kSimple.count(name)) continue;
    polygen::Polygon p = normalize(readFixture(name));
    ASSERT_FALSE(p.contours.empty()) << name;
    tricheck::checkTriangulation(p, name);
    ++run;
  }
  EXPECT_EQ(run, static_cast<int>(kSimple.size()));
}

// Touching, crossing and degenerate fixtures either triangulate or raise a
// qorException*; none may crash, hang or write past the triangle array
// (ASan checks the writes). Catches unchecked links and table indexes.
TEST(triangulateFixtures, DegeneratePolygonsNeverCrash) {
  int raisedCount = 0, run = 0;
  for (const std::string& name : fixtureNames()) {
    if (kSimple.count(name)) continue;
    polygen::Polygon p = normalize(readFixture(name));
    if (p.contours.empty()) continue;
    polygen::Flat flat = polygen::flatten(p);
    const int rows = p.vertexCount() + 2 * p.holeCount() - 2;
    std::vector<std::array<qorInt32, 3>> out(static_cast<size_t>(std::max(rows, 1)));
    ++run;
    try {
      triangulate(static_cast<qorInt32>(flat.sizes.size()), flat.sizes.data(), flat.points(),
                  reinterpret_cast<qorInt32(*)[3]>(out.data()));
      EXPECT_LE(triangulate_last_count(), rows) << name;
      for (int i = 0; i < triangulate_last_count(); ++i)
        for (qorInt32 v : out[static_cast<size_t>(i)]) {
          EXPECT_GE(v, 1) << name;
          EXPECT_LE(v, p.vertexCount()) << name;
        }
    } catch (qorException* e) {
      const std::string text = e->what();
      delete e;
      EXPECT_NE(text.find("[file qor_"), std::string::npos) << name << ": " << text;
      ++raisedCount;
    }
  }
  EXPECT_GT(run, 40);
  RecordProperty("raised", raisedCount);
}

// Random contours on a small integer grid: repeated points, collinear runs,
// crossings and mixed orientations. Each input either triangulates or raises
// a qorException*; none may crash, hang or write outside the arrays (ASan
// checks the writes). Catches unchecked links that simple polygons never hit.
TEST(triangulateFixtures, RandomGarbageNeverCrashes) {
  std::mt19937_64 rng(20261123);
  int raisedCount = 0;
  for (int round = 0; round < 3000; ++round) {
    const int contours = polygen::uniformInt(rng, 1, 4);
    const int grid = polygen::uniformInt(rng, 2, 12);
    polygen::Polygon p;
    for (int c = 0; c < contours; ++c) {
      p.contours.emplace_back();
      const int k = polygen::uniformInt(rng, 3, 25);
      for (int i = 0; i < k; ++i)
        p.contours.back().push_back({static_cast<double>(polygen::uniformInt(rng, 0, grid)),
                                     static_cast<double>(polygen::uniformInt(rng, 0, grid))});
    }
    polygen::Flat flat = polygen::flatten(p);
    const int rows = p.vertexCount() + 2 * p.holeCount() - 2;
    std::vector<std::array<qorInt32, 3>> out(static_cast<size_t>(rows));
    try {
      triangulate(static_cast<qorInt32>(flat.sizes.size()), flat.sizes.data(), flat.points(),
                  reinterpret_cast<qorInt32(*)[3]>(out.data()));
      ASSERT_LE(triangulate_last_count(), rows) << "round " << round;
    } catch (qorException* e) {
      const std::string text = e->what();
      delete e;
      ASSERT_NE(text.find("[file qor_"), std::string::npos) << "round " << round << ": " << text;
      ++raisedCount;
    }
  }
  RecordProperty("raised", raisedCount);
}
