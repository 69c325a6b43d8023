// qorTriangulateRings() and qorCheckPolygon(): the caller's arrays become one RingModel (checked, scaled, rings
// cleaned of repeated points and oriented), which the calling thread's RingSweep then sweeps.
#include <qor/qor_assert.h>
#include <qor/qor_rings.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <memory>

#include "internal/ring_sweep.h"

namespace {

using qor_internal::Contact;
using qor_internal::near;
using qor_internal::Pt;
using qor_internal::RingModel;

const char kUnit[] = "qor_rings";
const char kRingsPrefix[] = "qorTriangulateRings: ";
const char kFillPrefix[] = "qorTriangulateRingsFill: ";
const char kOutOfRange[] = "the coordinates are out of range (their magnitudes span more than 2^400)";
constexpr long long kMostPoints = 1LL << 30;
// Above this many points a call gives its thread's storage back when it ends.
constexpr qorInt32 kKeptPoints = 1 << 16;

[[noreturn]] void ringsFailed(const std::string& detail, unsigned long line) {
  qorThrowComposed(kRingsPrefix, detail.c_str(), kUnit, line);
}

// Everything a thread's calls keep between them.
struct ThreadRings {
  qor_internal::RingSweep sweep;
  RingModel model;
  RingModel single;  // one ring on its own
  qorRingFixups fixups{};
};

// A pointer in initial-exec TLS (one load a call; eight bytes, which glibc's reserve for libraries loaded with
// dlopen covers) to storage that an owner object of the thread releases when the thread ends.
__attribute__((tls_model("initial-exec"))) thread_local ThreadRings* t_Rings = nullptr;

struct RingsOwner {
  std::unique_ptr<ThreadRings> rings;
  ~RingsOwner() { t_Rings = nullptr; }
};

RingsOwner& ringsOwner() {
  static thread_local RingsOwner owner;
  return owner;
}

ThreadRings& threadRings() {
  if (t_Rings != nullptr) return *t_Rings;
  RingsOwner& owner = ringsOwner();
  owner.rings.reset(new ThreadRings());
  t_Rings = owner.rings.get();
  return *t_Rings;
}

// Gives the thread's storage back after a call that made it large, so that one big polygon does not pin memory.
void releaseIfLarge(qorInt32 points) {
  if (points <= kKeptPoints || t_Rings == nullptr) return;
  const qorRingFixups fixups = t_Rings->fixups;
  ringsOwner().rings.reset(new ThreadRings());
  t_Rings = ringsOwner().rings.get();
  t_Rings->fixups = fixups;
}

// Publishes what the call found as the thread's record on every way out of it, raising or not.
class FixupsRecord {
 public:
  explicit FixupsRecord(ThreadRings& rings) : m_Rings(rings) { m_Rings.fixups = qorRingFixups{}; }
  ~FixupsRecord() {
    if (t_Rings != nullptr) t_Rings->fixups = fixups;
  }
  FixupsRecord(const FixupsRecord&) = delete;
  FixupsRecord& operator=(const FixupsRecord&) = delete;
  qorRingFixups fixups{};

 private:
  ThreadRings& m_Rings;
};

// Takes back what a call appended to the caller's vector unless the call completes.
class AppendGuard {
 public:
  explicit AppendGuard(std::vector<qorInt32>& out) : m_Out(out), m_Size(out.size()) {}
  ~AppendGuard() {
    if (!m_Kept) m_Out.resize(m_Size);
  }
  AppendGuard(const AppendGuard&) = delete;
  AppendGuard& operator=(const AppendGuard&) = delete;
  void keep() { m_Kept = true; }
  size_t appended() const { return m_Out.size() - m_Size; }

 private:
  std::vector<qorInt32>& m_Out;
  size_t m_Size;
  bool m_Kept = false;
};

// Coordinate magnitudes, kept as bits with the sign cleared (which order as the magnitudes do): the largest, which
// also tells whether any coordinate is not finite, and the smallest non-zero one. Integer work in one pass.
struct Magnitudes {
  uint64_t largest = 0, smallestLess = ~0ull;  // the smallest non-zero one's bits minus 1
  void add(const double* v, size_t n) {
    uint64_t hi = largest, lo = smallestLess;
    for (size_t i = 0; i < n; ++i) {
      uint64_t b;
      std::memcpy(&b, v + i, sizeof(b));
      b &= 0x7fffffffffffffffull;
      hi = b > hi ? b : hi;
      lo = b - 1 < lo ? b - 1 : lo;
    }
    largest = hi;
    smallestLess = lo;
  }
  bool finite() const { return largest < 0x7ff0000000000000ull; }
  double scale() const {
    const uint64_t small = smallestLess == ~0ull ? 0 : smallestLess + 1;
    double hi, lo;
    std::memcpy(&hi, &largest, sizeof(hi));
    std::memcpy(&lo, &small, sizeof(lo));
    return qor_internal::exactScale(hi, lo);
  }
};

// Appends the ring's points, scaled, to the model's free space, without a point equal to the one before it (the
// first compared with the last), and estimates twice its area from its first point on the way (`magnitude` sums
// the products' sizes, for the estimate's error bound). Returns how many points it kept.
qorInt32 writeRing(RingModel& model, const double (*points)[2], qorInt32 first, qorInt32 size, double& twice,
                   double& magnitude) {
  Pt* out = model.pts.data() + model.count;
  qorInt32* origin = model.orig.data() + model.count;
  const double scale = model.scale;
  const Pt o{points[first][0] * scale, points[first][1] * scale};
  out[0] = o;
  origin[0] = first;
  qorInt32 k = 1;
  double sum = 0, size2 = 0;
  Pt low{std::min(model.low.x, o.x), std::min(model.low.y, o.y)};
  Pt high{std::max(model.high.x, o.x), std::max(model.high.y, o.y)};
  for (qorInt32 i = first + 1; i < first + size; ++i) {
    const Pt p{points[i][0] * scale, points[i][1] * scale};
    low.x = p.x < low.x ? p.x : low.x, low.y = p.y < low.y ? p.y : low.y;
    high.x = p.x > high.x ? p.x : high.x, high.y = p.y > high.y ? p.y : high.y;
    const Pt& last = out[k - 1];
    if (last.x == p.x && last.y == p.y) continue;
    const double l = (last.x - o.x) * (p.y - o.y), r = (last.y - o.y) * (p.x - o.x);
    sum += l - r;
    size2 += std::fabs(l) + std::fabs(r);
    out[k] = p;
    origin[k++] = i;
  }
  while (k > 1 && out[k - 1].x == o.x && out[k - 1].y == o.y) --k;  // its terms were zero
  model.low = low;
  model.high = high;
  twice = sum;
  magnitude = size2;
  return k;
}

// -1, 0 or 1: the exact sign of twice the area of the ring of k points just written, from its estimate.
int orientationOf(const RingModel& model, qorInt32 k, double twice, double magnitude) {
  if (k < 3) return 0;
  const double bound = (static_cast<double>(k) + 4.0) * DBL_EPSILON * magnitude;
  if (twice > bound) return 1;
  if (twice < -bound) return -1;
  double estimate;
  return qor_internal::ringOrientation(model.pts.data() + model.count, static_cast<size_t>(k), estimate);
}

// "a coordinate is not a finite number (ring R, point P)" for the first such point.
[[noreturn]] void raiseNotFinite(qorInt32 count, const qorInt32* sizes, const double (*points)[2],
                                 const char* prefix = kRingsPrefix) {
  std::string detail = "a coordinate is not a finite number";
  for (qorInt32 r = 0, first = 0; r < count && detail.back() == 'r'; first += std::max(sizes[r], 0), ++r)
    for (qorInt32 i = 0; i < sizes[r]; ++i)
      if (!std::isfinite(points[first + i][0]) || !std::isfinite(points[first + i][1])) {
        detail += " (ring " + std::to_string(r + 1) + ", point " + std::to_string(i + 1) + ")";
        break;
      }
  qorThrowComposed(prefix, detail.c_str(), kUnit, __LINE__);
}

// The checks every ring call starts with: a count and arrays, at most 2^30 points, finite coordinates whose
// magnitudes a power of two brings into the exact range. Returns the number of points and sets that power of two.
qorInt32 checkRings(qorInt32 count, const qorInt32* sizes, const double (*points)[2], const char* prefix,
                    double& scale) {
  if (count < 1) qorThrowComposed(prefix, "the ring count must be at least 1", kUnit, __LINE__);
  if (sizes == nullptr || points == nullptr) qorThrowComposed(prefix, "null sizes or points", kUnit, __LINE__);
  long long total = 0;
  for (qorInt32 r = 0; r < count; ++r) {
    if (sizes[r] > 0) total += sizes[r];
    if (total > kMostPoints) qorThrowComposed(prefix, "too many points", kUnit, __LINE__);
  }
  Magnitudes magnitudes;
  magnitudes.add(&points[0][0], 2 * static_cast<size_t>(total));
  if (!magnitudes.finite()) raiseNotFinite(count, sizes, points, prefix);
  scale = magnitudes.scale();
  if (scale == 0) qorThrowComposed(prefix, kOutOfRange, kUnit, __LINE__);
  return static_cast<qorInt32>(total);
}

// A ring without area is left out, unless its edges cross: then its lobes cancel, and that is an error.
void raiseIfCrossing(ThreadRings& rings, qorInt32 first, qorInt32 k, qorInt32 ring) {
  RingModel& single = rings.single;
  const RingModel& model = rings.model;
  single.begin(k, model.scale);
  std::copy(model.pts.begin() + first, model.pts.begin() + first + k, single.pts.begin());
  std::copy(model.orig.begin() + first, model.orig.begin() + first + k, single.orig.begin());
  single.keepRing(k, ring, 1);
  single.link();
  Contact touch, cross;
  rings.sweep.check(single, touch, cross);
  if (cross.kind == Contact::Cross)
    ringsFailed("ring " + std::to_string(ring + 1) + " crosses itself" + near(cross.x, cross.y) + " (edges cross)",
                __LINE__);
}

std::string describe(const Contact& c) {
  if (c.kind == Contact::None) return std::string();
  std::string text = "contour " + std::to_string(c.ringB + 1) + (c.kind == Contact::Cross ? " crosses " : " touches ");
  text += c.ringA == c.ringB ? std::string("itself") : "contour " + std::to_string(c.ringA + 1);
  return text + near(c.x, c.y);
}

}  // namespace

qorInt32 qorTriangulateRings(qorInt32 count, const qorInt32* sizes, const double (*points)[2],
                             std::vector<qorInt32>& triangles) {
  ThreadRings& rings = threadRings();
  FixupsRecord record(rings);
  qorRingFixups& fixups = record.fixups;
  double scale;
  const qorInt32 total = checkRings(count, sizes, points, kRingsPrefix, scale);
  RingModel& model = rings.model;
  model.begin(static_cast<qorInt32>(total), scale);
  qorInt32 firstWithArea = -1;
  for (qorInt32 r = 0, first = 0; r < count; first += std::max(sizes[r], 0), ++r) {
    if (sizes[r] <= 0) continue;
    double twice = 0, magnitude = 0;
    const qorInt32 k = writeRing(model, points, first, sizes[r], twice, magnitude);
    fixups.pointsDropped += sizes[r] - k;
    const int orientation = orientationOf(model, k, twice, magnitude);
    if (orientation == 0) {
      if (k >= 3) raiseIfCrossing(rings, model.count, k, r);
      ++fixups.ringsDropped;
      fixups.pointsDropped += k;
      continue;
    }
    const int wanted = r == 0 ? 1 : -1;
    if (orientation != wanted) ++fixups.ringsReoriented;
    model.twiceArea += wanted * std::fabs(twice);
    model.keepRing(k, r, static_cast<int8_t>(orientation == wanted ? 1 : -1));
    if (firstWithArea < 0) firstWithArea = r;
  }
  if (firstWithArea < 0) return 0;
  if (firstWithArea != 0)
    ringsFailed("ring 1, the outer ring, has no area, but ring " + std::to_string(firstWithArea + 1) + " has",
                __LINE__);

  AppendGuard appended(triangles);
  qor_internal::SweepCounts counts;
  double twiceCovered = 0;
  const auto recordCounts = [&] {
    fixups.pointsMerged = counts.pointsMerged, fixups.edgesSplit = counts.edgesSplit;
    fixups.edgesCancelled = counts.edgesCancelled;
  };
  try {
    if (!rings.sweep.triangulateMonotone(model, model.ringSign[0] > 0, triangles, twiceCovered)) {
      model.link();
      rings.sweep.triangulate(model, kRingsPrefix, triangles, counts, twiceCovered);
    }
  } catch (...) {
    recordCounts();
    releaseIfLarge(model.count);
    throw;
  }
  recordCounts();
  // The triangles' areas must add up to the region's: the sweep's own invariant, checked independently.
  const long terms = static_cast<long>(model.count) + static_cast<long>(appended.appended() / 3);
  const double extent = std::max(model.high.x - model.low.x, model.high.y - model.low.y);
  const double tolerance = qor_internal::areaTolerance(extent, terms);
  const double twiceArea = model.twiceArea;
  releaseIfLarge(model.count);
  if (!(std::fabs(twiceCovered - twiceArea) <= tolerance))
    ringsFailed("the triangles do not cover the polygon (do rings overlap?)", __LINE__);
  appended.keep();
  return static_cast<qorInt32>(appended.appended() / 3);
}

qorInt32 qorTriangulateRingsFill(qorInt32 count, const qorInt32* sizes, const double (*points)[2], qorFillRule rule,
                                 std::vector<qorInt32>& triangles, std::vector<double>& added) {
  added.clear();
  if (rule != qorFillEvenOdd && rule != qorFillNonZero)
    qorThrow("qorTriangulateRingsFill: the fill rule must be qorFillEvenOdd or qorFillNonZero", kUnit, __LINE__);
  double scale;
  const qorInt32 total = checkRings(count, sizes, points, kFillPrefix, scale);
  ThreadRings& rings = threadRings();
  RingModel& model = rings.model;
  model.begin(static_cast<qorInt32>(total), scale);
  qorInt32 rows = 0, kept = 0;
  int orientation = 0;
  for (qorInt32 r = 0, first = 0; r < count; first += std::max(sizes[r], 0), ++r) {
    if (sizes[r] <= 0) continue;
    rows += sizes[r];
    double twice = 0, magnitude = 0;
    const qorInt32 k = writeRing(model, points, first, sizes[r], twice, magnitude);
    if (k < 2) continue;  // a single point encloses nothing
    orientation = orientationOf(model, k, twice, magnitude);
    model.keepRing(k, r, 1);
    ++kept;
  }
  AppendGuard appended(triangles);
  try {
    double twiceCovered;
    // One simple ring is its own region under either rule.
    if (kept != 1 || orientation == 0 ||
        !rings.sweep.triangulateMonotone(model, orientation > 0, triangles, twiceCovered))
      if (kept > 0) {
        model.link();
        rings.sweep.fill(model, rule, rows, kFillPrefix, triangles, added);
      }
  } catch (...) {
    added.clear();
    releaseIfLarge(model.count);
    throw;
  }
  releaseIfLarge(model.count);
  appended.keep();
  return static_cast<qorInt32>(appended.appended() / 3);
}

qorRingFixups qorTriangulateRingsFixups() { return t_Rings != nullptr ? t_Rings->fixups : qorRingFixups{}; }

std::string qorCheckPolygon(qorInt32 count, const qorInt32* sizes, const double (*points)[2]) {
  if (count > 0 && (sizes == nullptr || points == nullptr))
    qorThrow("qorCheckPolygon: null sizes or points", kUnit, __LINE__);
  Magnitudes magnitudes;
  long long total = 0;
  for (qorInt32 c = 0, first = 0; c < count; ++c) {
    const qorInt32 k = sizes[c];
    if (k <= 0) continue;
    if (k < 3) return "contour " + std::to_string(c + 1) + " has fewer than 3 points";
    for (qorInt32 i = first; i < first + k; ++i)
      if (!std::isfinite(points[i][0]) || !std::isfinite(points[i][1]))
        return "contour " + std::to_string(c + 1) + " has a coordinate that is not a finite number";
    magnitudes.add(&points[first][0], 2 * static_cast<size_t>(k));
    first += k;
    total += k;
    if (total > kMostPoints) return "more than 2^30 points";
  }
  const double scale = magnitudes.scale();
  if (scale == 0) return kOutOfRange;

  ThreadRings& rings = threadRings();
  RingModel& model = rings.model;
  model.begin(static_cast<qorInt32>(total), scale);
  // A point repeated right after itself is a touch of its own.
  Contact repeated;
  for (qorInt32 c = 0, first = 0; c < count; first += std::max(sizes[c], 0), ++c) {
    if (sizes[c] <= 0) continue;
    double twice, magnitude;
    const qorInt32 k = writeRing(model, points, first, sizes[c], twice, magnitude);
    if (k < sizes[c]) {
      for (qorInt32 i = 0; i < sizes[c]; ++i) {
        const double* p = points[first + i];
        const double* q = points[first + (i + 1) % sizes[c]];
        if (p[0] != q[0] || p[1] != q[1]) continue;
        if (repeated.kind == Contact::None || p[1] < repeated.y || (p[1] == repeated.y && p[0] < repeated.x))
          repeated = Contact{Contact::Touch, c, c, p[0], p[1]};
      }
    }
    if (k >= 2) model.keepRing(k, c, 1);
  }
  Contact touch, cross;
  model.link();
  rings.sweep.check(model, touch, cross);
  releaseIfLarge(model.count);
  if (cross.kind == Contact::Cross) return describe(cross);
  if (touch.kind == Contact::None ||
      (repeated.kind == Contact::Touch && (repeated.y < touch.y || (repeated.y == touch.y && repeated.x < touch.x))))
    touch = repeated;
  return describe(touch);
}
