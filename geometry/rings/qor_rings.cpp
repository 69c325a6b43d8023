// qorTriangulateRings() and qorCheckPolygon(): the caller's arrays become one RingModel (checked, scaled, rings
// cleaned of repeated points and oriented), which the calling thread's RingSweep then sweeps.
#include <qor/qor_assert.h>
#include <qor/qor_rings.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "internal/ring_sweep.h"

namespace {

using qor_internal::Contact;
using qor_internal::Pt;
using qor_internal::RingModel;

const char kUnit[] = "qor_rings";
const char kRingsPrefix[] = "qorTriangulateRings: ";
const char kOutOfRange[] = "the coordinates are out of range (their magnitudes span more than 2^400)";
constexpr long long kMostPoints = 1LL << 30;

thread_local qorRingFixups lastFixups;

[[noreturn]] void ringsFailed(const std::string& detail, unsigned long line) {
  qorThrowComposed(kRingsPrefix, detail.c_str(), kUnit, line);
}

// Publishes what the call found as the thread's record on every way out of it, raising or not.
class FixupsRecord {
 public:
  FixupsRecord() { lastFixups = qorRingFixups{}; }
  ~FixupsRecord() { lastFixups = fixups; }
  FixupsRecord(const FixupsRecord&) = delete;
  FixupsRecord& operator=(const FixupsRecord&) = delete;
  qorRingFixups fixups{};
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

// The storage of the calling thread's calls.
struct Workspace {
  RingModel model;
  RingModel single;  // one ring on its own
  std::vector<Pt> ring;
  std::vector<qorInt32> origin;
};

Workspace& threadWorkspace() {
  static thread_local Workspace workspace;
  return workspace;
}

// The largest and the smallest non-zero coordinate magnitude of the non-empty rings, which decide the scale.
struct Magnitudes {
  double largest = 0, smallest = 0;
  void add(double v) {
    const double a = std::fabs(v);
    largest = std::max(largest, a);
    if (a != 0 && (smallest == 0 || a < smallest)) smallest = a;
  }
};

// The ring's points scaled, without a point equal to the one before it (the first compared with the last).
// Returns how many were left out.
qorInt32 cleanRing(const double (*points)[2], qorInt32 first, qorInt32 size, double scale, std::vector<Pt>& ring,
                   std::vector<qorInt32>& origin) {
  ring.clear();
  origin.clear();
  for (qorInt32 i = first; i < first + size; ++i) {
    const Pt p{points[i][0] * scale, points[i][1] * scale};
    if (!ring.empty() && ring.back().x == p.x && ring.back().y == p.y) continue;
    ring.push_back(p);
    origin.push_back(i);
  }
  while (ring.size() > 1 && ring.back().x == ring.front().x && ring.back().y == ring.front().y) {
    ring.pop_back();
    origin.pop_back();
  }
  return size - static_cast<qorInt32>(ring.size());
}

// The origin (the lower left corner) and extent of the model's points, for the area check.
void measure(RingModel& model) {
  double minX = INFINITY, minY = INFINITY, maxX = -INFINITY, maxY = -INFINITY;
  for (const Pt& p : model.pts) {
    minX = std::min(minX, p.x), maxX = std::max(maxX, p.x);
    minY = std::min(minY, p.y), maxY = std::max(maxY, p.y);
  }
  model.originX = minX;
  model.originY = minY;
  model.extent = std::max(maxX - minX, maxY - minY);
}

// Gives the thread's storage back when a call made it large, so that one big polygon does not pin its memory.
void trim(Workspace& w) {
  if (w.model.pts.capacity() <= (1u << 16)) return;
  w.model = RingModel();
  w.single = RingModel();
  w.ring = std::vector<Pt>();
  w.origin = std::vector<qorInt32>();
}

void raiseIfCrossing(Workspace& w, qorInt32 ring, double scale) {
  w.single.clear();
  w.single.scale = scale;
  w.single.addRing(w.ring.data(), w.origin.data(), static_cast<qorInt32>(w.ring.size()), ring, 1);
  Contact touch, cross;
  qor_internal::threadSweep().check(w.single, touch, cross);
  if (cross.kind != Contact::Cross) return;
  char where[80];
  std::snprintf(where, sizeof(where), " near (%.10g, %.10g)", cross.x, cross.y);
  ringsFailed("ring " + std::to_string(ring + 1) + " crosses itself" + where + " (edges cross)", __LINE__);
}

std::string describe(const Contact& c) {
  if (c.kind == Contact::None) return std::string();
  char where[80];
  std::snprintf(where, sizeof(where), " near (%.10g, %.10g)", c.x, c.y);
  std::string text = "contour " + std::to_string(c.ringB + 1) + (c.kind == Contact::Cross ? " crosses " : " touches ");
  text += c.ringA == c.ringB ? std::string("itself") : "contour " + std::to_string(c.ringA + 1);
  return text + where;
}

}  // namespace

qorInt32 qorTriangulateRings(qorInt32 count, const qorInt32* sizes, const double (*points)[2],
                             std::vector<qorInt32>& triangles) {
  FixupsRecord record;
  qorRingFixups& fixups = record.fixups;
  if (count < 1) ringsFailed("the ring count must be at least 1", __LINE__);
  if (sizes == nullptr || points == nullptr) ringsFailed("null sizes or points", __LINE__);

  long long total = 0;
  for (qorInt32 r = 0; r < count; ++r) {
    if (sizes[r] > 0) total += sizes[r];
    if (total > kMostPoints) ringsFailed("too many points", __LINE__);
  }
  Magnitudes magnitudes;
  for (qorInt32 r = 0, first = 0; r < count; ++r) {
    for (qorInt32 i = 0; i < sizes[r]; ++i) {
      const double x = points[first + i][0], y = points[first + i][1];
      if (!std::isfinite(x) || !std::isfinite(y))
        ringsFailed("a coordinate is not a finite number (ring " + std::to_string(r + 1) + ", point " +
                        std::to_string(i + 1) + ")",
                    __LINE__);
      magnitudes.add(x);
      magnitudes.add(y);
    }
    first += std::max(sizes[r], 0);
  }
  const double scale = qor_internal::exactScale(magnitudes.largest, magnitudes.smallest);
  if (scale == 0) ringsFailed(kOutOfRange, __LINE__);

  Workspace& w = threadWorkspace();
  RingModel& model = w.model;
  model.clear();
  model.scale = scale;
  bool outerKept = false;
  qorInt32 firstWithArea = -1;
  for (qorInt32 r = 0, first = 0; r < count; first += std::max(sizes[r], 0), ++r) {
    if (sizes[r] <= 0) continue;
    fixups.pointsDropped += cleanRing(points, first, sizes[r], scale, w.ring, w.origin);
    double twice = 0;
    const int orientation = w.ring.size() >= 3 ? qor_internal::ringOrientation(w.ring.data(), w.ring.size(), twice) : 0;
    if (orientation == 0) {
      // A ring without area is left out, unless its edges cross: then its lobes cancel, and that is an error.
      if (w.ring.size() >= 3) raiseIfCrossing(w, r, scale);
      ++fixups.ringsDropped;
      fixups.pointsDropped += static_cast<qorInt32>(w.ring.size());
      continue;
    }
    const int wanted = r == 0 ? 1 : -1;
    if (orientation != wanted) ++fixups.ringsReoriented;
    model.twiceArea += wanted * std::fabs(twice);
    model.addRing(w.ring.data(), w.origin.data(), static_cast<qorInt32>(w.ring.size()), r,
                  static_cast<int8_t>(orientation == wanted ? 1 : -1));
    outerKept = outerKept || r == 0;
    if (firstWithArea < 0) firstWithArea = r;
  }
  if (firstWithArea < 0) return 0;
  if (!outerKept)
    ringsFailed("ring 1, the outer ring, has no area, but ring " + std::to_string(firstWithArea + 1) + " has",
                __LINE__);
  measure(model);

  AppendGuard appended(triangles);
  triangles.reserve(triangles.size() + 3 * (static_cast<size_t>(model.size()) + 2 * static_cast<size_t>(count)));
  qor_internal::SweepCounts counts;
  double twiceCovered = 0;
  try {
    qor_internal::threadSweep().triangulate(model, kRingsPrefix, triangles, counts, twiceCovered);
  } catch (...) {
    fixups.pointsMerged = counts.pointsMerged, fixups.edgesSplit = counts.edgesSplit;
    fixups.edgesCancelled = counts.edgesCancelled;
    trim(w);
    throw;
  }
  fixups.pointsMerged = counts.pointsMerged, fixups.edgesSplit = counts.edgesSplit;
  fixups.edgesCancelled = counts.edgesCancelled;
  const long terms = static_cast<long>(model.size()) + static_cast<long>(appended.appended() / 3);
  const double tolerance = qor_internal::areaTolerance(model.extent, terms);
  trim(w);
  if (!(std::fabs(twiceCovered - model.twiceArea) <= tolerance))
    ringsFailed("the triangles do not cover the polygon (do rings overlap?)", __LINE__);
  appended.keep();
  return static_cast<qorInt32>(appended.appended() / 3);
}

qorRingFixups qorTriangulateRingsFixups() { return lastFixups; }

std::string qorCheckPolygon(qorInt32 count, const qorInt32* sizes, const double (*points)[2]) {
  if (count > 0 && (sizes == nullptr || points == nullptr))
    qorThrow("qorCheckPolygon: null sizes or points", kUnit, __LINE__);
  Magnitudes magnitudes;
  for (qorInt32 c = 0, first = 0; c < count; ++c) {
    const qorInt32 k = sizes[c];
    if (k <= 0) continue;
    if (k < 3) return "contour " + std::to_string(c + 1) + " has fewer than 3 points";
    for (qorInt32 i = first; i < first + k; ++i) {
      if (!std::isfinite(points[i][0]) || !std::isfinite(points[i][1]))
        return "contour " + std::to_string(c + 1) + " has a coordinate that is not a finite number";
      magnitudes.add(points[i][0]);
      magnitudes.add(points[i][1]);
    }
    first += k;
  }
  const double scale = qor_internal::exactScale(magnitudes.largest, magnitudes.smallest);
  if (scale == 0) return kOutOfRange;

  Workspace& w = threadWorkspace();
  RingModel& model = w.model;
  model.clear();
  model.scale = scale;
  // A point repeated right after itself is a touch of its own.
  Contact repeated;
  for (qorInt32 c = 0, first = 0; c < count; first += std::max(sizes[c], 0), ++c) {
    if (sizes[c] <= 0) continue;
    if (cleanRing(points, first, sizes[c], scale, w.ring, w.origin) > 0) {
      for (qorInt32 i = 0; i < sizes[c]; ++i) {
        const double* p = points[first + i];
        const double* q = points[first + (i + 1) % sizes[c]];
        if (p[0] != q[0] || p[1] != q[1]) continue;
        if (repeated.kind == Contact::None || p[1] < repeated.y || (p[1] == repeated.y && p[0] < repeated.x))
          repeated = Contact{Contact::Touch, c, c, p[0], p[1]};
      }
    }
    if (w.ring.size() >= 2) model.addRing(w.ring.data(), w.origin.data(), static_cast<qorInt32>(w.ring.size()), c, 1);
  }
  Contact touch, cross;
  qor_internal::threadSweep().check(model, touch, cross);
  trim(w);
  if (cross.kind == Contact::Cross) return describe(cross);
  if (touch.kind == Contact::None ||
      (repeated.kind == Contact::Touch && (repeated.y < touch.y || (repeated.y == touch.y && repeated.x < touch.x))))
    touch = repeated;
  return describe(touch);
}
