// SVG pictures of polygons, their triangles or pieces, and cut lines.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "qor_tool.h"

namespace qortool {

namespace {

// Maps polygon coordinates into the 800x800 view box, y pointing up, below a
// caption band at the top.
struct View {
  double minX, minY, scale, offX, offY;
  double x(double v) const { return offX + (v - minX) * scale; }
  double y(double v) const { return 800 - offY - (v - minY) * scale; }
};

std::string num(double v) {
  char b[32];
  std::snprintf(b, sizeof b, "%.2f", v);
  return b;
}

std::string pathOf(const View& view, const std::array<double, 2>* p, size_t n) {
  if (n == 0) return "";
  std::string d;
  for (size_t i = 0; i < n; ++i) d += (i == 0 ? "M" : " L") + num(view.x(p[i][0])) + "," + num(view.y(p[i][1]));
  return d + " Z";
}

std::string escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else if (c == '&')
      out += "&amp;";
    else
      out += c;
  }
  return out;
}

}  // namespace

std::string renderSvg(const Picture& pic) {
  const Polygon& poly = *pic.polygon;
  double minX = HUGE_VAL, minY = HUGE_VAL, maxX = -HUGE_VAL, maxY = -HUGE_VAL;
  for (const auto& p : poly.points) {
    minX = std::min(minX, p[0]), maxX = std::max(maxX, p[0]);
    minY = std::min(minY, p[1]), maxY = std::max(maxY, p[1]);
  }
  const double w = std::max(maxX - minX, 1e-300), h = std::max(maxY - minY, 1e-300);
  const double scale = std::min(760 / w, 720 / h);  // 20 px margins, 60 px caption band
  const View view{minX, minY, scale, 20 + (760 - w * scale) / 2, 20 + (720 - h * scale) / 2};

  std::string svg =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"800\" height=\"800\" viewBox=\"0 0 800 800\">\n"
      "<rect width=\"800\" height=\"800\" fill=\"#ffffff\"/>\n";
  // The whole polygon first, holes cut out, as the backdrop of the pieces.
  std::string outline;
  size_t at = 0;
  for (int size : poly.sizes) {
    outline += pathOf(view, &poly.points[at], size) + " ";
    at += size;
  }
  svg += "<path d=\"" + outline + "\" fill=\"#e8e8e8\" fill-rule=\"" + (pic.nonZero ? "nonzero" : "evenodd") +
         "\" stroke=\"none\"/>\n<g stroke=\"#333333\" "
         "stroke-width=\"0.6\" stroke-linejoin=\"round\">\n";
  for (size_t i = 0; i < pic.pieces.size(); ++i) {
    // Hues a golden angle apart keep neighbouring pieces apart in colour.
    char fill[48];
    std::snprintf(fill, sizeof fill, "hsl(%d,70%%,%d%%)", static_cast<int>(std::fmod(i * 137.508, 360.0)),
                  60 + static_cast<int>(i % 3) * 8);
    svg += "<path d=\"" + pathOf(view, pic.pieces[i].data(), pic.pieces[i].size()) + "\" fill=\"" + fill + "\"/>\n";
  }
  svg += "</g>\n";
  at = 0;
  for (size_t c = 0; c < poly.sizes.size(); ++c) {
    svg += "<path d=\"" + pathOf(view, &poly.points[at], poly.sizes[c]) + "\" fill=\"none\" stroke=\"" +
           (c == 0 ? "#000000" : "#1f4fbf") + "\" stroke-width=\"2\"/>\n";
    at += poly.sizes[c];
  }
  for (const auto& m : pic.marks)
    svg += "<circle cx=\"" + num(view.x(m[0])) + "\" cy=\"" + num(view.y(m[1])) + "\" r=\"3\" fill=\"#d62020\"/>\n";
  if (pic.hasLine) {
    // The cut line is infinite: draw it across the whole picture.
    const double x1 = view.x(pic.line[0]), y1 = view.y(pic.line[1]);
    const double dx = view.x(pic.line[2]) - x1, dy = view.y(pic.line[3]) - y1;
    const double len = std::max(std::hypot(dx, dy), 1e-9), k = 2000 / len;
    svg += "<line x1=\"" + num(x1 - dx * k) + "\" y1=\"" + num(y1 - dy * k) + "\" x2=\"" + num(x1 + dx * k) +
           "\" y2=\"" + num(y1 + dy * k) + "\" stroke=\"#d62020\" stroke-width=\"2\" stroke-dasharray=\"8,5\"/>\n";
  }
  svg +=
      "<rect width=\"800\" height=\"44\" fill=\"#ffffff\" fill-opacity=\"0.85\"/>\n"
      "<text x=\"400\" y=\"28\" font-family=\"sans-serif\" font-size=\"18\" text-anchor=\"middle\" "
      "fill=\"#000000\">" +
      escape(pic.caption) + "</text>\n</svg>\n";
  return svg;
}

}  // namespace qortool
