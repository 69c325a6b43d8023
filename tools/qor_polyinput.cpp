// Polygon input of the qor tool: text files (plain or gzip), JSON rings and
// GeoJSON, and the built-in polygon.
#include <qor/qor_exception.h>
#include <qor/qor_stream.h>

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>

#include "qor_tool.h"

namespace qortool {

namespace {

// The built-in polygon: a gear of eight teeth with an octagonal hole at its
// hub and four triangular holes around it (52 vertices, 5 holes).
const char kDefaultPolygon[] =
    "# gear: outer contour counter-clockwise, holes clockwise\n"
    "75.7 -18.9\n"
    "99.3 -12.2\n"
    "99.3 12.2\n"
    "75.7 18.9\n"
    "66.9 40.2\n"
    "78.8 61.6\n"
    "61.6 78.8\n"
    "40.2 66.9\n"
    "18.9 75.7\n"
    "12.2 99.3\n"
    "-12.2 99.3\n"
    "-18.9 75.7\n"
    "-40.2 66.9\n"
    "-61.6 78.8\n"
    "-78.8 61.6\n"
    "-66.9 40.2\n"
    "-75.7 18.9\n"
    "-99.3 12.2\n"
    "-99.3 -12.2\n"
    "-75.7 -18.9\n"
    "-66.9 -40.2\n"
    "-78.8 -61.6\n"
    "-61.6 -78.8\n"
    "-40.2 -66.9\n"
    "-18.9 -75.7\n"
    "-12.2 -99.3\n"
    "12.2 -99.3\n"
    "18.9 -75.7\n"
    "40.2 -66.9\n"
    "61.6 -78.8\n"
    "78.8 -61.6\n"
    "66.9 -40.2\n"
    "\n"
    "30 -0\n"
    "21.2 -21.2\n"
    "-0 -30\n"
    "-21.2 -21.2\n"
    "-30 0\n"
    "-21.2 21.2\n"
    "0 30\n"
    "21.2 21.2\n"
    "\n"
    "60.1 24.9\n"
    "49.5 11.1\n"
    "42.9 27.1\n"
    "\n"
    "-24.9 60.1\n"
    "-11.1 49.5\n"
    "-27.1 42.9\n"
    "\n"
    "-60.1 -24.9\n"
    "-49.5 -11.1\n"
    "-42.9 -27.1\n"
    "\n"
    "24.9 -60.1\n"
    "11.1 -49.5\n"
    "27.1 -42.9\n";

// Points a file may hold: far more than any triangulator takes, small enough
// that a runaway file is refused before it fills the memory.
constexpr size_t kMaxPoints = 10000000;

void addPoint(Polygon& poly, double x, double y, const std::string& where) {
  if (poly.points.size() >= kMaxPoints)
    fail(where + ": too many vertices (more than " + std::to_string(kMaxPoints) + ")");
  poly.points.push_back({x, y});
}

void parseText(Polygon& poly, const std::string& text) {
  size_t pos = 0;
  long lineNo = 0;
  int inContour = 0;
  // A blank line ends the contour (a comment line does not); contours of one
  // or two points are kept for the triangulators to judge.
  auto endContour = [&]() {
    if (inContour == 0) return;
    poly.sizes.push_back(inContour);
    inContour = 0;
  };
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    ++lineNo;
    const size_t hash = line.find('#');
    const bool comment = hash != std::string::npos;
    if (comment) line.erase(hash);
    for (char& c : line)
      if (c == ',' || c == '\t' || c == '\r') c = ' ';
    const size_t first = line.find_first_not_of(' ');
    if (first == std::string::npos) {
      if (!comment) endContour();
      continue;
    }
    const std::string where = poly.name + ":" + std::to_string(lineNo);
    double v[2];
    const char* p = line.c_str() + first;
    for (int k = 0; k < 2; ++k) {
      while (*p == ' ') ++p;
      char* stop = nullptr;
      errno = 0;
      v[k] = std::strtod(p, &stop);
      const char* tokenEnd = p;
      while (*tokenEnd != '\0' && *tokenEnd != ' ') ++tokenEnd;
      if (stop == p || stop != tokenEnd || errno == ERANGE || !std::isfinite(v[k]))
        fail(where + ": '" + std::string(p, tokenEnd - p) + "' is not a number");
      p = stop;
    }
    while (*p == ' ') ++p;
    if (*p != '\0') fail(where + ": expected one 'x y' pair, found more: '" + std::string(p) + "'");
    if (inContour == 0) poly.lines.push_back(lineNo);
    addPoint(poly, v[0], v[1], where);
    ++inContour;
  }
  endContour();
}

// Rings of [x, y] pairs: the array itself, a GeoJSON Polygon, a Feature
// holding one, or a FeatureCollection of exactly one such Feature.
QJsonArray ringsOf(const QJsonValue& value, const std::string& name) {
  if (value.isArray()) return value.toArray();
  const QJsonObject o = value.toObject();
  const QString type = o.value("type").toString();
  if (type == "Polygon") return o.value("coordinates").toArray();
  if (type == "Feature") return ringsOf(o.value("geometry"), name);
  if (type == "FeatureCollection") {
    const QJsonArray features = o.value("features").toArray();
    if (features.size() != 1)
      fail(name + ": a FeatureCollection must hold exactly one feature (it holds " + std::to_string(features.size()) +
           ")");
    return ringsOf(features.at(0), name);
  }
  fail(name + ": expected an array of rings or a GeoJSON Polygon, Feature or FeatureCollection" +
       (type.isEmpty() ? std::string() : ", found type '" + type.toStdString() + "'"));
}

void parseJson(Polygon& poly, const QByteArray& bytes) {
  QJsonParseError error;
  const QJsonDocument doc = QJsonDocument::fromJson(bytes, &error);
  if (doc.isNull())
    fail(poly.name + ": invalid JSON at byte " + std::to_string(error.offset) + ": " +
         error.errorString().toStdString());
  const QJsonArray rings = ringsOf(doc.isArray() ? QJsonValue(doc.array()) : QJsonValue(doc.object()), poly.name);
  if (rings.isEmpty()) fail(poly.name + ": no rings");
  for (int r = 0; r < rings.size(); ++r) {
    const std::string ring = poly.name + ": ring " + std::to_string(r + 1);
    if (!rings[r].isArray()) fail(ring + " is not an array of points");
    const QJsonArray pts = rings[r].toArray();
    for (int i = 0; i < pts.size(); ++i) {
      const QJsonArray xy = pts[i].toArray();
      if (xy.size() < 2 || !xy[0].isDouble() || !xy[1].isDouble())
        fail(ring + ", point " + std::to_string(i + 1) + ": expected [x, y] numbers");
      addPoint(poly, xy[0].toDouble(), xy[1].toDouble(), ring);
    }
    poly.sizes.push_back(pts.size());
    poly.lines.push_back(0);
  }
}

}  // namespace

double signedArea(const std::array<double, 2>* p, int n) {
  double a = 0;
  for (int i = 0, j = n - 1; i < n; j = i++) a += (p[j][0] - p[i][0]) * (p[j][1] + p[i][1]);
  return a / 2;
}

std::string shortContours(const Polygon& poly) {
  std::string list;
  int count = 0;
  for (size_t c = 0; c < poly.sizes.size(); ++c) {
    if (poly.sizes[c] > 2) continue;
    if (++count <= 5)
      list += (count == 1 ? "" : ", ") + std::to_string(c + 1) +
              (poly.lines[c] > 0 ? " (line " + std::to_string(poly.lines[c]) + ")" : "");
  }
  if (count == 0) return "";
  const bool json = poly.lines[0] == 0;  // text contours start on a line
  return poly.name + ": " + (json ? "ring" : "contour") + (count == 1 ? " " : "s ") + list +
         (count > 5 ? " and " + std::to_string(count - 5) + " more" : "") + (count == 1 ? " has" : " have") +
         " fewer than three points";
}

Polygon readPolygon(const std::string& name, Format format) {
  Polygon poly;
  if (name.empty()) {
    poly.name = "(built-in)";
    parseText(poly, kDefaultPolygon);
    return poly;
  }
  poly.name = shownName(name);
  std::string text;
  {
    std::unique_ptr<qorStreamReader> r(openInput(name, format, nullptr));
    static char buf[65536];
    try {
      for (long n; (n = r->read(buf, sizeof buf)) > 0;) {
        text.append(buf, n);
        if (text.size() > (1ul << 31)) fail(poly.name + ": too large for a polygon file");
      }
      r->checkRead();
    } catch (qorException* e) {
      readFailure(name, e);
    }
  }
  // Editors on some systems start UTF-8 text with a byte-order mark; it is
  // no part of the first number.
  if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.erase(0, 3);
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first != std::string::npos && (text[first] == '[' || text[first] == '{'))
    parseJson(poly, QByteArray::fromRawData(text.data(), static_cast<int>(text.size())));
  else
    parseText(poly, text);
  if (poly.sizes.empty()) fail(poly.name + ": no polygon in the file");
  return poly;
}

}  // namespace qortool
