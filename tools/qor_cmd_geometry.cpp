// The polygon commands of the qor tool: triangulate, inside, split, break and
// divide.
#include <qor/qor_exception.h>
#include <qor/qor_polysplit.h>
#include <qor/qor_rings.h>
#include <qor/qor_triangulate.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "qor_tool.h"

namespace qortool {

namespace {

using Point = std::array<double, 2>;

// The polygon as the plain triangulator needs it: repeated points dropped,
// outer contour counter-clockwise, holes clockwise; fileIndex maps each kept
// vertex back to its 0-based position in the file.
struct Prepared {
  std::vector<qorInt32> sizes;
  std::vector<Point> points;
  std::vector<int> fileIndex;
  int dropped = 0, reversed = 0;
};

Prepared prepareStrict(const Polygon& poly) {
  Prepared out;
  size_t at = 0;
  for (size_t c = 0; c < poly.sizes.size(); ++c) {
    const size_t start = out.points.size();
    for (int i = 0; i < poly.sizes[c]; ++i) {
      const Point& p = poly.points[at + i];
      if (out.points.size() > start && out.points.back() == p) continue;
      out.points.push_back(p);
      out.fileIndex.push_back(static_cast<int>(at + i));
    }
    if (out.points.size() - start > 1 && out.points.back() == out.points[start]) {
      out.points.pop_back();
      out.fileIndex.pop_back();
    }
    const int kept = static_cast<int>(out.points.size() - start);
    out.dropped += poly.sizes[c] - kept;
    if (kept < 3) fail(poly.name + ": contour " + std::to_string(c + 1) + " has fewer than three distinct points");
    out.sizes.push_back(kept);
    at += poly.sizes[c];
  }
  if (out.points.size() > 8191)
    fail(poly.name + ": too many vertices (" + std::to_string(out.points.size()) +
         "; the triangulator takes at most 8191)");
  const std::string problem = qorCheckPolygon(static_cast<qorInt32>(out.sizes.size()), out.sizes.data(),
                                              reinterpret_cast<const double(*)[2]>(out.points.data()));
  if (!problem.empty()) fail(poly.name + ": " + problem);
  at = 0;
  for (size_t c = 0; c < out.sizes.size(); ++c) {
    const double a = signedArea(&out.points[at], out.sizes[c]);
    if ((c == 0) != (a > 0)) {
      std::reverse(out.points.begin() + at, out.points.begin() + at + out.sizes[c]);
      std::reverse(out.fileIndex.begin() + at, out.fileIndex.begin() + at + out.sizes[c]);
      ++out.reversed;
    }
    at += out.sizes[c];
  }
  return out;
}

// Runs the plain triangulator; returns 0-based file indices, 3 a triangle.
std::vector<int> triangulateStrict(const Prepared& prep) {
  const size_t n = prep.points.size();
  std::vector<Point> rows(n + 1);
  std::copy(prep.points.begin(), prep.points.end(), rows.begin() + 1);
  std::vector<qorInt32> sizes = prep.sizes;
  std::vector<qorInt32> out(3 * (n + 2 * sizes.size()));
  triangulate(static_cast<qorInt32>(sizes.size()), sizes.data(), reinterpret_cast<double(*)[2]>(rows.data()),
              reinterpret_cast<qorInt32(*)[3]>(out.data()));
  const int count = triangulate_last_count();
  std::vector<int> tris(3 * count);
  for (int i = 0; i < 3 * count; ++i) tris[i] = prep.fileIndex[out[i] - 1];
  return tris;
}

double polygonArea(const Polygon& poly) {
  double area = 0;
  size_t at = 0;
  for (size_t c = 0; c < poly.sizes.size(); ++c) {
    const double a = std::fabs(signedArea(&poly.points[at], poly.sizes[c]));
    area += c == 0 ? a : -a;
    at += poly.sizes[c];
  }
  return area;
}

std::string fmt(const char* format, double v) {
  char b[64];
  std::snprintf(b, sizeof b, format, v);
  return b;
}

void writeSvg(const std::string& name, const Picture& pic) {
  Output out(name, false, false);
  out.write(renderSvg(pic));
  out.commit();
}

std::string optionalFile(const Args& args, size_t maxPositional) {
  if (args.positional.size() > maxPositional) usage(args.command + ": too many arguments");
  return args.positional.empty() ? "" : args.positional[0];
}

// Each output a polygon command writes must be a target of its own: not the
// input (renaming over it would lose it) and not another output.
void checkTargets(const Args& args, const std::string& file) {
  std::vector<std::string> given;
  for (const char* option : {"-o", "--svg"}) {
    if (!args.has(option)) continue;
    const std::string out = args.get(option);
    if (!file.empty() && sameTarget(out, file, false))
      usage(args.command + ": " + option + " " + out + " is the input " + shownName(file));
    for (const std::string& other : given)
      if (sameTarget(out, args.get(other), true))
        usage(args.command + ": " + other + " and " + option + " both write " + out);
    given.push_back(option);
  }
}

// Why a break of this rank leaves the outline whole. The splitter cuts
// across the longer side of the bounding box, through the median vertex
// coordinate (rank 0) or the largest one below the coordinate of the rank;
// a cut at the smallest coordinate runs along the edge and cuts nothing.
std::string uncutReason(const QPolygon& outline, long rank) {
  const QRect box = outline.boundingRect();
  const bool acrossY = box.height() > box.width();
  std::vector<int> coords;
  for (const QPoint& p : outline) coords.push_back(acrossY ? p.y() : p.x());
  std::sort(coords.begin(), coords.end());
  const long n = static_cast<long>(coords.size());
  if (rank >= n) return "rank " + std::to_string(rank) + " is not below the vertex count (" + std::to_string(n) + ")";
  const auto below = std::lower_bound(coords.begin(), coords.end(), coords[rank]);
  const int at = rank == 0 ? coords[n / 2] : below == coords.begin() ? coords[0] : below[-1];
  const std::string axis = acrossY ? "y" : "x";
  if (at == coords[0])
    return "rank " + std::to_string(rank) + " puts the cut at " + axis + " = " + std::to_string(at) +
           ", the polygon's smallest " + axis + ", where it only touches the edge";
  return "the cut at " + axis + " = " + std::to_string(at) + " leaves the polygon whole";
}

}  // namespace

int cmdTriangulate(const std::string& command, int argc, char** argv) {
  const Args args = parseArgs(command, argc, argv, {"--svg", "-o", "--repeat", "--fill", "--format"}, {"--strict"});
  const std::string file = optionalFile(args, 1);
  const long repeat = parseCount(args.get("--repeat", "1"), "--repeat", 1, 1000000);
  const bool strict = args.has("--strict"), fill = args.has("--fill");
  const std::string ruleName = args.get("--fill");
  if (fill && ruleName != "evenodd" && ruleName != "nonzero")
    usage("--fill: expected evenodd or nonzero, got '" + ruleName + "'");
  const qorFillRule rule = ruleName == "nonzero" ? qorFillNonZero : qorFillEvenOdd;
  if (fill && strict) usage(command + ": --fill and --strict exclude each other");
  checkTargets(args, file);
  const Format format = formatOption(args, Format::Auto);
  const Polygon poly = readPolygon(file, format);
  const int n = static_cast<int>(poly.points.size()), holes = static_cast<int>(poly.sizes.size()) - 1;
  const auto rings = reinterpret_cast<const double(*)[2]>(poly.points.data());

  std::vector<int> tris;
  std::vector<double> added;  // --fill: the points where edges cross, x and y
  std::vector<double> times;
  std::string method;
  try {
    Prepared prep;
    if (strict) prep = prepareStrict(poly);
    for (long r = 0; r < repeat; ++r) {
      const auto t0 = std::chrono::steady_clock::now();
      if (strict) {
        tris = triangulateStrict(prep);
      } else {
        std::vector<qorInt32> out;
        if (fill)
          qorTriangulateRingsFill(static_cast<qorInt32>(poly.sizes.size()), poly.sizes.data(), rings, rule, out, added);
        else
          qorTriangulateRings(static_cast<qorInt32>(poly.sizes.size()), poly.sizes.data(), rings, out);
        tris.assign(out.begin(), out.end());
      }
      times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
    }
    if (strict) {
      method = "strict (" + std::to_string(prep.dropped) + " repeated points dropped, " +
               std::to_string(prep.reversed) + " contours reversed)";
    } else if (fill) {
      method = "fill " + ruleName + " (" + std::to_string(added.size() / 2) +
               (added.size() == 2 ? " vertex" : " vertices") + " added where edges cross)";
    } else {
      const qorRingFixups f = qorTriangulateRingsFixups();
      method = "rings (" + std::to_string(f.ringsReoriented) + " reoriented, " + std::to_string(f.pointsDropped) +
               " points dropped, " + std::to_string(f.ringsDropped) + " rings dropped, " +
               std::to_string(f.pointsMerged) + " points merged, " + std::to_string(f.edgesSplit) + " edges split, " +
               std::to_string(f.edgesCancelled) + " edges cancelled)";
      // The engine leaves such rings out as it leaves out rings of no area;
      // the user is told which, since the file has them.
      const std::string shortOnes = shortContours(poly);
      if (!shortOnes.empty()) note(shortOnes + "; left out");
    }
  } catch (qorException* e) {
    fail(poly.name + ": " + exceptionText(e));
  }

  auto vertex = [&](int i) -> Point {
    return i < n ? poly.points[i] : Point{added[2 * (i - n)], added[2 * (i - n) + 1]};
  };
  const size_t count = tris.size() / 3;
  const double area = polygonArea(poly);
  double triArea = 0, magnitude = 0;
  for (const Point& p : poly.points) magnitude = std::max({magnitude, std::fabs(p[0]), std::fabs(p[1])});
  std::vector<std::vector<Point>> shapes;
  for (size_t t = 0; t < count; ++t) {
    const Point tri[3] = {vertex(tris[3 * t]), vertex(tris[3 * t + 1]), vertex(tris[3 * t + 2])};
    triArea += signedArea(tri, 3);
    shapes.push_back({tri[0], tri[1], tri[2]});
  }
  // Each triangle's area carries a rounding error of a few units in the last
  // place of the coordinates' square.
  const double tolerance = 1e-9 * std::fabs(area) + 8 * (count + 1) * 2.2e-16 * magnitude * magnitude;
  const bool match = fill || std::fabs(triArea - area) <= tolerance;
  const std::string ruleText = rule == qorFillNonZero ? "the non-zero rule" : "the even-odd rule";
  std::sort(times.begin(), times.end());

  FILE* report = args.get("-o") == "-" || args.get("--svg") == "-" ? stderr : stdout;
  // Under a fill rule no contour is a hole: each adds to the winding numbers.
  const std::string contours =
      fill ? std::to_string(holes + 1) + (holes == 0 ? " contour" : " contours") : std::to_string(holes) + " holes";
  std::fprintf(report, "polygon:   %s: %d vertices, %s\n", poly.name.c_str(), n, contours.c_str());
  std::fprintf(report, "method:    %s\n", method.c_str());
  std::fprintf(report, "triangles: %zu\n", count);
  if (fill)
    std::fprintf(report, "area:      triangles %.10g (the region under %s)\n", triArea, ruleText.c_str());
  else
    std::fprintf(report, "area:      polygon %.10g, triangles %.10g (%s, difference %.3g)\n", area, triArea,
                 match ? "match" : "MISMATCH", triArea - area);
  std::fprintf(report, "time:      %.4f ms per call (median of %ld)\n", times[times.size() / 2], repeat);
  if (args.has("-o")) {
    const std::string name = args.get("-o");
    Output out(name, name.size() > 3 && name.compare(name.size() - 3, 3, ".gz") == 0, false);
    std::string text;
    char line[80];
    for (size_t k = 0; k < added.size(); k += 2) {
      std::snprintf(line, sizeof line, "v %.17g %.17g\n", added[k], added[k + 1]);
      text += line;
    }
    for (size_t t = 0; t < count; ++t) {
      text += std::to_string(tris[3 * t] + 1) + " " + std::to_string(tris[3 * t + 1] + 1) + " " +
              std::to_string(tris[3 * t + 2] + 1) + "\n";
      if (text.size() > 65536) out.write(text), text.clear();
    }
    out.write(text);
    out.commit();
    if (name != "-") std::fprintf(report, "written:   %s\n", name.c_str());
  }
  if (args.has("--svg")) {
    Picture pic;
    pic.polygon = &poly;
    pic.pieces = shapes;
    pic.nonZero = fill && rule == qorFillNonZero;
    for (size_t k = 0; k < added.size(); k += 2) pic.marks.push_back({added[k], added[k + 1]});
    pic.caption =
        std::to_string(n) + " vertices, " + contours + ", " + std::to_string(count) + " triangles; " +
        (fill ? std::to_string(added.size() / 2) + " added; area " + fmt("%.6g", triArea) + " under " + ruleText
              : "area " + fmt("%.6g", area) + (match ? " = " : " != ") + "sum of triangles");
    writeSvg(args.get("--svg"), pic);
    if (args.get("--svg") != "-") std::fprintf(report, "picture:   %s\n", args.get("--svg").c_str());
  }
  if (!match) fail(poly.name + ": the triangles' area does not match the polygon's");
  return 0;
}

int cmdInside(const std::string& command, int argc, char** argv) {
  const Args args = parseArgs(command, argc, argv, {"--format"}, {});
  if (args.positional.size() < 2 || args.positional.size() > 3) usage("inside: expected [FILE] X Y");
  const size_t k = args.positional.size() - 2;
  double point[2] = {parseNumber(args.positional[k], "X"), parseNumber(args.positional[k + 1], "Y")};
  const Polygon poly = readPolygon(k == 1 ? args.positional[0] : "", formatOption(args, Format::Auto));
  try {
    triangulateStrict(prepareStrict(poly));
    const bool in = is_point_inside_polygon(point) != 0;
    std::printf("(%g, %g) is %s %s\n", point[0], point[1], in ? "inside" : "outside", poly.name.c_str());
  } catch (qorException* e) {
    fail(poly.name + ": " + exceptionText(e));
  }
  return 0;
}

int cmdSplit(const std::string& command, int argc, char** argv) {
  const char* need = command == "split" ? "--line" : command == "break" ? "--rank" : "--max";
  const Args args = parseArgs(command, argc, argv, {need, "--svg", "--format"}, {});
  const std::string file = optionalFile(args, 1);
  if (!args.has(need)) usage(command + ": " + need + " is required");
  int line[4] = {0, 0, 0, 0};
  long value = 0;
  if (command == "split") {
    std::string text = args.get(need) + ",";
    for (int i = 0; i < 4; ++i) {
      const size_t comma = text.find(',');
      if (comma == std::string::npos) usage("--line: expected X1,Y1,X2,Y2, got '" + args.get(need) + "'");
      const double v = parseNumber(text.substr(0, comma), "--line");
      if (std::fabs(v) > 1e9) usage("--line: coordinate " + text.substr(0, comma) + " is out of range");
      line[i] = static_cast<int>(std::lround(v));
      text.erase(0, comma + 1);
    }
    if (!text.empty()) usage("--line: expected X1,Y1,X2,Y2, got '" + args.get(need) + "'");
    if (line[0] == line[2] && line[1] == line[3]) usage("--line: the two points are the same");
  } else {
    value = parseCount(args.get(need), need, 0, std::numeric_limits<int>::max());
  }
  checkTargets(args, file);
  const Polygon poly = readPolygon(file, formatOption(args, Format::Auto));

  // The splitter takes integer points in counter-clockwise order.
  QPolygon outline;
  bool rounded = false;
  for (int i = 0; i < poly.sizes[0]; ++i) {
    const Point& p = poly.points[i];
    if (std::fabs(p[0]) > 1e9 || std::fabs(p[1]) > 1e9) fail(poly.name + ": coordinates beyond 1e9 do not fit");
    const QPoint q(static_cast<int>(std::lround(p[0])), static_cast<int>(std::lround(p[1])));
    rounded = rounded || q.x() != p[0] || q.y() != p[1];
    if (outline.isEmpty() || outline.back() != q) outline.push_back(q);
  }
  if (outline.size() > 1 && outline.back() == outline.front()) outline.pop_back();
  auto areaOf = [](const QPolygon& q) {
    std::vector<Point> pts;
    for (const QPoint& p : q) pts.push_back({double(p.x()), double(p.y())});
    return pts.empty() ? 0.0 : signedArea(pts.data(), static_cast<int>(pts.size()));
  };
  const bool reversed = areaOf(outline) < 0;
  if (reversed) std::reverse(outline.begin(), outline.end());
  if (outline.size() < 3 || areaOf(outline) == 0) fail(poly.name + ": the first contour encloses no area");

  PolySplitter splitter;
  std::vector<QPolygon> pieces;
  if (command == "split") pieces = splitter.Split(outline, QLine(line[0], line[1], line[2], line[3]));
  if (command == "break") pieces = splitter.Break(outline, static_cast<int>(value));
  if (command == "divide") pieces = splitter.Divide(outline, static_cast<int>(value));
  if (pieces.size() == 1) {
    // The one piece is the outline as it came: say why rather than let it
    // pass for a result.
    std::string why;
    if (command == "split")
      why = "the line does not cross the polygon's inside";
    else if (command == "divide" && value > 0 && outline.size() <= value)
      why = "the first contour has " + std::to_string(outline.size()) + " vertices, no more than --max " +
            std::to_string(value);
    else
      why = (command == "divide" ? "its first break: " : "") + uncutReason(outline, value);
    note(command + ": nothing was cut: " + why);
  }

  FILE* report = args.get("--svg") == "-" ? stderr : stdout;
  std::fprintf(report, "polygon:   %s: first contour, %d vertices%s%s\n", poly.name.c_str(), int(outline.size()),
               rounded ? ", coordinates rounded to integers" : "", reversed ? ", reversed to counter-clockwise" : "");
  const double whole = areaOf(outline);
  double sum = 0;
  int vertices = 0;
  Picture pic;
  for (size_t i = 0; i < pieces.size(); ++i) {
    const double a = areaOf(pieces[i]);
    sum += a;
    vertices += pieces[i].size();
    std::fprintf(report, "piece %zu:   %d vertices, area %.10g\n", i + 1, int(pieces[i].size()), a);
    std::vector<Point> shape;
    for (const QPoint& p : pieces[i]) shape.push_back({double(p.x()), double(p.y())});
    pic.pieces.push_back(shape);
  }
  // Crossing points are truncated to integers: each moves an edge by less
  // than the polygon's diagonal times one unit.
  const QRect box = outline.boundingRect();
  const double allowance = std::max(0, vertices - int(outline.size())) * std::hypot(box.width(), box.height());
  const bool adds = std::fabs(sum - whole) <= allowance;
  std::fprintf(report, "area:      polygon %.10g, pieces %.10g (%s, difference %.3g, allowance %.3g)\n", whole, sum,
               adds ? "add up" : "DO NOT ADD UP", sum - whole, allowance);
  if (args.has("--svg")) {
    Polygon shown;
    shown.name = poly.name;
    for (const QPoint& p : outline) shown.points.push_back({double(p.x()), double(p.y())});
    shown.sizes.push_back(outline.size());
    pic.polygon = &shown;
    if (command == "split") {
      pic.hasLine = true;
      pic.line = {double(line[0]), double(line[1]), double(line[2]), double(line[3])};
    }
    pic.caption = command + ": " + std::to_string(pieces.size()) + " pieces, areas " +
                  (adds ? "add up to " : "do not add up to ") + fmt("%.6g", whole);
    writeSvg(args.get("--svg"), pic);
    if (args.get("--svg") != "-") std::fprintf(report, "picture:   %s\n", args.get("--svg").c_str());
  }
  if (!adds) fail(poly.name + ": the pieces' areas do not add up");
  return 0;
}

}  // namespace qortool
