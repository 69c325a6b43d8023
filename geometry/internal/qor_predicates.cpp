#include "qor_predicates.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace qor_internal {

namespace {

// Error-free transformations: each returns a rounded result and the exact rounding error, so that the pair holds
// the exact value. They rely on IEEE double arithmetic without contraction into fused multiply-adds (the library
// is built with -ffp-contract=off).

inline void twoSum(double a, double b, double& x, double& y) {
  x = a + b;
  const double bv = x - a;
  const double av = x - bv;
  y = (a - av) + (b - bv);
}

inline void twoDiff(double a, double b, double& x, double& y) {
  x = a - b;
  const double bv = a - x;
  const double av = x + bv;
  y = (a - av) + (bv - b);
}

inline void split(double a, double& hi, double& lo) {
  const double c = 134217729.0 * a;  // 2^27 + 1
  const double big = c - a;
  hi = c - big;
  lo = a - hi;
}

inline void twoProduct(double a, double b, double& x, double& y) {
  x = a * b;
  double ah, al, bh, bl;
  split(a, ah, al);
  split(b, bh, bl);
  const double e1 = x - ah * bh;
  const double e2 = e1 - al * bh;
  const double e3 = e2 - ah * bl;
  y = al * bl - e3;
}

// Room for the components of at most N additions, in place: a sum of one or two cross products needs no heap.
template <size_t N>
class FixedParts {
 public:
  double* begin() { return m_Parts; }
  double* end() { return m_Parts + m_Size; }
  const double* begin() const { return m_Parts; }
  const double* end() const { return m_Parts + m_Size; }
  double& operator[](size_t i) { return m_Parts[i]; }
  double back() const { return m_Parts[m_Size - 1]; }
  bool empty() const { return m_Size == 0; }
  size_t size() const { return m_Size; }
  void resize(size_t n) { m_Size = n; }
  void push_back(double v) { m_Parts[m_Size++] = v; }

 private:
  double m_Parts[N];
  size_t m_Size = 0;
};

// An exact sum kept as non-overlapping components in increasing magnitude (zeros left out). Adding a component
// keeps the invariant and makes at most one more; the sign of the whole is the sign of its largest component.
template <class Parts>
class Expansion {
 public:
  void add(double b) {
    if (b == 0) return;
    size_t kept = 0;
    double q = b;
    for (double e : m_Parts) {
      double sum, err;
      twoSum(q, e, sum, err);
      q = sum;
      if (err != 0) m_Parts[kept++] = err;
    }
    m_Parts.resize(kept);
    if (q != 0) m_Parts.push_back(q);
  }
  // Adds the exact product a * b.
  void addProduct(double a, double b) {
    double x, y;
    twoProduct(a, b, x, y);
    add(y);
    add(x);
  }
  int sign() const {
    if (m_Parts.empty()) return 0;
    return m_Parts.back() > 0 ? 1 : -1;
  }
  // The value, rounded: the components from the smallest up (within a unit in the last place).
  double value() const {
    double v = 0;
    for (double e : m_Parts) v += e;
    return v;
  }
  // Rewrites the components so that there are as few as the value needs (long sums grow them otherwise).
  void compress() {
    Parts parts;
    std::swap(parts, m_Parts);
    for (double e : parts) add(e);
  }
  size_t size() const { return m_Parts.size(); }

 private:
  Parts m_Parts;
};

// One cross product adds 8 exact products, 16 components at most.
using CrossSum = Expansion<FixedParts<16>>;
// A ring's sum of any number of them.
using RingSum = Expansion<std::vector<double>>;

// Adds (a2 - a1) x (b2 - b1), exactly, to `sum`: each difference is split into its rounded value and its error,
// and the eight partial products are added one by one (those of zero errors add nothing).
template <class Sum>
void addCross(Sum& sum, const Pt& a1, const Pt& a2, const Pt& b1, const Pt& b2) {
  double ax, axt, ay, ayt, bx, bxt, by, byt;
  twoDiff(a2.x, a1.x, ax, axt);
  twoDiff(a2.y, a1.y, ay, ayt);
  twoDiff(b2.x, b1.x, bx, bxt);
  twoDiff(b2.y, b1.y, by, byt);
  sum.addProduct(ax, by);
  sum.addProduct(-ay, bx);
  sum.addProduct(ax, byt);
  sum.addProduct(axt, by);
  sum.addProduct(axt, byt);
  sum.addProduct(-ay, bxt);
  sum.addProduct(-ayt, bx);
  sum.addProduct(-ayt, bxt);
}

}  // namespace

double crossExact(const Pt& a1, const Pt& a2, const Pt& b1, const Pt& b2) {
  CrossSum det;
  addCross(det, a1, a2, b1, b2);
  return det.sign();
}

int ringOrientation(const Pt* p, size_t n, double& estimate) {
  // Each term's estimate is off by at most kOrientBound times its magnitude sum, and adding n terms adds at most
  // n units of rounding of the largest partial sum: beyond that bound the estimate's sign is the exact one.
  double total = 0, magnitude = 0;
  const Pt& o = p[0];
  for (size_t i = 1; i + 1 < n; ++i) {
    const double left = (p[i].x - o.x) * (p[i + 1].y - o.y);
    const double right = (p[i].y - o.y) * (p[i + 1].x - o.x);
    total += left - right;
    magnitude += std::fabs(left) + std::fabs(right);
  }
  estimate = total;
  const double bound = (static_cast<double>(n) + 4.0) * DBL_EPSILON * magnitude;
  if (total > bound) return 1;
  if (total < -bound) return -1;
  RingSum exact;
  for (size_t i = 1; i + 1 < n; ++i) {
    addCross(exact, o, p[i], o, p[i + 1]);
    if (exact.size() > 64) exact.compress();
  }
  return exact.sign();
}

bool exactRange(double largest, double smallest) {
  return largest <= 0x1p+200 && (smallest == 0 || smallest >= 0x1p-400);
}

double exactScale(double largest, double smallest) {
  if (largest == 0 || exactRange(largest, smallest)) return 1.0;
  if (smallest != 0 && largest / smallest > 0x1p+400) return 0.0;
  int e = 0;
  std::frexp(largest, &e);  // largest = f * 2^e, f in [0.5, 1): scaled, it lies in [1, 2)
  return std::ldexp(1.0, 1 - e);
}

double areaTolerance(double extent, long terms) {
  // Each cross product of coordinates within `extent` is off by a few units in the last place of extent^2; 64 of
  // them per term leaves a wide margin over what a valid polygon shows and stays far below any missing triangle.
  return 64.0 * DBL_EPSILON * static_cast<double>(terms) * extent * extent;
}

Pt crossingPoint(const Pt& a, const Pt& b, const Pt& c, const Pt& d) {
  // How far a and b lie from the line c d, exact and then rounded once, so that the point along a b is within a
  // few units in the last place of the true crossing, however nearly parallel the edges are.
  CrossSum ea, eb;
  addCross(ea, a, c, a, d);
  addCross(eb, b, c, b, d);
  const double da = ea.value(), db = eb.value();
  const long double t = da == db ? 0.5L : static_cast<long double>(da) / (static_cast<long double>(da) - db);
  Pt x{static_cast<double>(a.x + t * (static_cast<long double>(b.x) - a.x)),
       static_cast<double>(a.y + t * (static_cast<long double>(b.y) - a.y))};
  // Rounding may leave the point a hair outside either segment's box; keep it inside both.
  x.x = std::min(std::max(x.x, std::max(std::min(a.x, b.x), std::min(c.x, d.x))),
                 std::min(std::max(a.x, b.x), std::max(c.x, d.x)));
  x.y = std::min(std::max(x.y, std::max(std::min(a.y, b.y), std::min(c.y, d.y))),
                 std::min(std::max(a.y, b.y), std::max(c.y, d.y)));
  return x;
}

}  // namespace qor_internal
