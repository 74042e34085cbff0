// The rectangle detector over OpenCV.
//
// Edges are found on a reduced "work" copy of the gray picture, reduced by a whole factor:
// bands where the gray level steps by enough (a thresholded morphological gradient), then
// every contour of those bands. Candidates come two ways:
//  - closed outlines: a contour whose convex hull is, within a few per cent of its area, a
//    convex quadrilateral with sensible angles (rounded card corners fall inside that);
//  - lines: where clutter touches an outline from outside and print from inside, no contour
//    is the outline, but its sides remain straight runs of contours. Runs are gathered into
//    lines, and four lines whose quadrilateral's sides are mostly covered by edge, and do not
//    run on past its corners, make a candidate.
// Repeats are merged; the leaders' sides are re-fitted to the strongest edge nearby (on the full
// picture at High accuracy, on the work copy at Low) and ranked by area, by how much of the
// outline the edges show and by closeness to the aspect-ratio hint.

#include "platform/vision/rectangle_detector.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <exception>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "platform/image/image_data.h"
#include "platform/image/opencv_view.h"

namespace kwq::platform {
namespace {

// Edges are where the gray level spans at least this much within a 3 x 3 neighbourhood of
// the smoothed work picture: a card against a desk or a hairline border on white card stock
// passes, wood grain and paper texture mostly do not. (A thresholded morphological gradient
// costs a fifth of a Canny pass; its edges come out two or three pixels wide, which closes
// small gaps in an outline the way a dilation would.)
constexpr double kEdgeStep = 20;
// Nothing smaller than this on a side can hold a rectangle worth reporting.
constexpr int kMinFrameSide = 16;
// Long side of the picture edges are searched in, per accuracy; larger pictures are reduced.
constexpr int kLowWorkSide = 400;
constexpr int kHighWorkSide = 640;
// A candidate must cover this fraction of the work picture: smaller outlines are print,
// texture and noise, not objects held up to a camera.
constexpr double kMinAreaFraction = 0.008;
// The contour must fill its hull this well (an open, C-shaped edge chain does not), and the
// quadrilateral its hull this well (ellipses and blobs do not; rounded corners do).
constexpr double kMinSolidity = 0.85;
constexpr double kMinQuadFill = 0.93;
// Interior angles outside this range are no rectangle seen under a camera's perspective.
constexpr double kMinAngleDeg = 35.0;
constexpr double kMaxAngleDeg = 145.0;
// Ranking: a shape differing from the hint by this much in log ratio counts half.
constexpr double kRatioRankScale = 0.15;
// Least share of each side's samples that must lie on the refitted side.
constexpr double kMinFit = 0.5;
// Longest lines that may make up quads (by length of edge along them).
constexpr size_t kMaxLines = 32;

using Corners = std::array<cv::Point2d, 4>;  // round the outline, top-left origin, pixel centres

struct Candidate {
  Corners p;
  double area = 0;
  double score = 0;
  double support = 1;  // how well the edges bear the quad out, 0 to 1
};

double cross(cv::Point2d a, cv::Point2d b) {
  return a.x * b.y - a.y * b.x;
}

double signedArea(const Corners& p) {
  double s = 0;
  for (int i = 0; i < 4; ++i) s += cross(p[i], p[(i + 1) % 4]);
  return s * 0.5;
}

double sideLength(const Corners& p, int i) {
  return cv::norm(p[(i + 1) % 4] - p[i]);
}

// True when every interior angle lies in the accepted range (the quad is convex already).
bool anglesPlausible(const Corners& p) {
  static const double lo = std::cos(kMaxAngleDeg * CV_PI / 180.0);
  static const double hi = std::cos(kMinAngleDeg * CV_PI / 180.0);
  for (int i = 0; i < 4; ++i) {
    const cv::Point2d a = p[(i + 3) % 4] - p[i], b = p[(i + 1) % 4] - p[i];
    const double na = cv::norm(a), nb = cv::norm(b);
    if (na < 1e-9 || nb < 1e-9) return false;
    const double c = a.dot(b) / (na * nb);
    if (c < lo || c > hi) return false;
  }
  return true;
}

// The shape's long-over-short ratio as it appears: mean of opposite sides.
double flatRatio(const Corners& p) {
  const double a = (sideLength(p, 0) + sideLength(p, 2)) * 0.5;
  const double b = (sideLength(p, 1) + sideLength(p, 3)) * 0.5;
  if (a <= 0 || b <= 0) return 0;
  return std::max(a, b) / std::min(a, b);
}

// The true long-over-short ratio of a rectangle seen as `p` by a pinhole camera of focal
// length `f` with its principal point at `centre` (whiteboard rectification: the vanishing
// geometry of the quad fixes the rectangle's side directions up to scale). Falls back to the
// apparent ratio where the geometry degenerates.
double perspectiveRatio(const Corners& p, double f, cv::Point2d centre) {
  // m1 = p0, m2 = p1 (along the first side), m3 = p3 (along the last), m4 = p2 (opposite).
  const cv::Vec3d m1(p[0].x - centre.x, p[0].y - centre.y, 1.0);
  const cv::Vec3d m2(p[1].x - centre.x, p[1].y - centre.y, 1.0);
  const cv::Vec3d m3(p[3].x - centre.x, p[3].y - centre.y, 1.0);
  const cv::Vec3d m4(p[2].x - centre.x, p[2].y - centre.y, 1.0);
  const double d2 = m2.cross(m4).dot(m3), d3 = m3.cross(m4).dot(m2);
  if (std::abs(d2) < 1e-12 || std::abs(d3) < 1e-12) return flatRatio(p);
  const double k2 = m1.cross(m4).dot(m3) / d2;
  const double k3 = m1.cross(m4).dot(m2) / d3;
  const cv::Vec3d n2 = k2 * m2 - m1, n3 = k3 * m3 - m1;
  const double f2 = f * f;
  const double w2 = (n2[0] * n2[0] + n2[1] * n2[1]) / f2 + n2[2] * n2[2];
  const double h2 = (n3[0] * n3[0] + n3[1] * n3[1]) / f2 + n3[2] * n3[2];
  if (!(w2 > 0) || !(h2 > 0) || !std::isfinite(w2) || !std::isfinite(h2)) return flatRatio(p);
  const double r = std::sqrt(w2 / h2);
  return std::max(r, 1.0 / r);
}

// Bilinear sample of an 8-bit picture of at least 2 x 2 pixels, its edge rows and columns
// repeated outward (an outline a pixel or two inside the frame still has a profile across it).
double sample(const cv::Mat& g, double x, double y) {
  x = x >= 0 ? std::min(x, g.cols - 1.0) : 0.0;  // NaN goes to 0 too
  y = y >= 0 ? std::min(y, g.rows - 1.0) : 0.0;
  const int x0 = std::min(static_cast<int>(x), g.cols - 2);
  const int y0 = std::min(static_cast<int>(y), g.rows - 2);
  const double fx = x - x0, fy = y - y0;
  const uint8_t* r0 = g.ptr<uint8_t>(y0);
  const uint8_t* r1 = g.ptr<uint8_t>(y0 + 1);
  return (r0[x0] * (1 - fx) + r0[x0 + 1] * fx) * (1 - fy) +
         (r1[x0] * (1 - fx) + r1[x0 + 1] * fx) * fy;
}

// The line through edge points (direction, then a point on it): least squares about the
// principal axis, refitted twice with points more than a pixel off down-weighted (Huber), so a
// few points on print next to the edge do not tilt it.
cv::Vec4d fitEdgeLine(const std::vector<cv::Point2d>& points) {
  std::vector<double> weight(points.size(), 1.0);
  cv::Vec4d line;
  for (int round = 0; round < 3; ++round) {
    double sum = 0, mx = 0, my = 0;
    for (size_t i = 0; i < points.size(); ++i) {
      sum += weight[i];
      mx += weight[i] * points[i].x;
      my += weight[i] * points[i].y;
    }
    mx /= sum;
    my /= sum;
    double sxx = 0, sxy = 0, syy = 0;
    for (size_t i = 0; i < points.size(); ++i) {
      const double dx = points[i].x - mx, dy = points[i].y - my;
      sxx += weight[i] * dx * dx;
      sxy += weight[i] * dx * dy;
      syy += weight[i] * dy * dy;
    }
    const double angle = 0.5 * std::atan2(2 * sxy, sxx - syy);
    line = cv::Vec4d(std::cos(angle), std::sin(angle), mx, my);
    for (size_t i = 0; i < points.size(); ++i) {
      const double off = std::abs(line[0] * (points[i].y - my) - line[1] * (points[i].x - mx));
      weight[i] = off <= 1.0 ? 1.0 : 1.0 / off;
    }
  }
  return line;
}

// Re-fits each side of `p` to the strongest edge within `reach` pixels of it on the full
// picture and intersects neighbouring sides. Only the middle of each side is used, so rounded
// corners do not pull the lines; the corners become those of the sharp rectangle the sides
// span. Leaves `p` as it is when a side finds too little edge or the result strays.
//
// Returns how well the picture bears the quad out: the smallest share, over the four sides, of
// sample points whose strongest edge lies within 1.5 pixels of the fitted side (0 when the
// refit fails). A quad that borrows a side from clutter, or strays off an edge, scores low.
double refine(const cv::Mat& gray, double reach, Corners& p) {
  constexpr double kMinStep = 6.0;  // gray levels across two pixels that count as an edge
  std::array<cv::Vec4d, 4> lines;   // direction, point
  double fit = 1;
  const int radius = static_cast<int>(std::ceil(reach));
  std::vector<double> profile(static_cast<size_t>(2 * radius + 3));
  for (int i = 0; i < 4; ++i) {
    const cv::Point2d a = p[i], b = p[(i + 1) % 4];
    const double length = cv::norm(b - a);
    if (length < 4) return 0;
    const cv::Point2d dir = (b - a) / length, normal(-dir.y, dir.x);
    const int count = std::clamp(static_cast<int>(length / 6), 8, 48);
    std::vector<cv::Point2d> rising, falling;
    for (int s = 0; s < count; ++s) {
      const double t = 0.12 + 0.76 * s / (count - 1);
      const cv::Point2d at = a + (b - a) * t;
      for (int k = -radius - 1; k <= radius + 1; ++k) {
        const cv::Point2d q = at + normal * static_cast<double>(k);
        profile[static_cast<size_t>(k + radius + 1)] = sample(gray, q.x, q.y);
      }
      int best = 0;
      double bestStep = 0;
      for (int k = -radius; k <= radius; ++k) {
        const size_t j = static_cast<size_t>(k + radius + 1);
        const double step = profile[j + 1] - profile[j - 1];
        if (std::abs(step) > std::abs(bestStep)) {
          bestStep = step;
          best = k;
        }
      }
      if (std::abs(bestStep) < kMinStep) continue;
      // Sub-pixel peak of the step's magnitude by a parabola through its neighbours.
      double offset = best;
      if (best > -radius && best < radius) {
        const size_t j = static_cast<size_t>(best + radius + 1);
        const double l = std::abs(profile[j] - profile[j - 2]);
        const double c = std::abs(bestStep);
        const double r = std::abs(profile[j + 2] - profile[j]);
        const double den = l - 2 * c + r;
        if (den < 0) offset += std::clamp(0.5 * (l - r) / den, -0.5, 0.5);
      }
      const cv::Point2d e = at + normal * offset;
      (bestStep > 0 ? rising : falling).push_back(e);
    }
    // A side separates two surfaces, so its edge has one polarity; the minority is print or
    // texture next to the outline.
    const std::vector<cv::Point2d>& found = rising.size() >= falling.size() ? rising : falling;
    if (static_cast<int>(found.size()) < std::max(5, count / 3)) return 0;
    const cv::Vec4d line = fitEdgeLine(found);
    lines[static_cast<size_t>(i)] = line;
    int onLine = 0;
    for (const auto* points : {&rising, &falling})
      for (const cv::Point2d& e : *points)
        onLine += std::abs(line[0] * (e.y - line[3]) - line[1] * (e.x - line[2])) <= 1.5;
    fit = std::min(fit, static_cast<double>(onLine) / count);
  }
  Corners out;
  for (int i = 0; i < 4; ++i) {
    const cv::Vec4d& l1 = lines[static_cast<size_t>((i + 3) % 4)];
    const cv::Vec4d& l2 = lines[static_cast<size_t>(i)];
    const cv::Point2d d1(l1[0], l1[1]), d2(l2[0], l2[1]);
    const double den = cross(d1, d2);
    if (std::abs(den) < 1e-6) return 0;
    const cv::Point2d q1(l1[2], l1[3]), q2(l2[2], l2[3]);
    const double t = cross(q2 - q1, d2) / den;
    out[static_cast<size_t>(i)] = q1 + d1 * t;
  }
  const double shortest =
      std::min({sideLength(p, 0), sideLength(p, 1), sideLength(p, 2), sideLength(p, 3)});
  const double allowed = std::max(3 * reach, 0.08 * shortest);
  for (int i = 0; i < 4; ++i)
    if (!(cv::norm(out[i] - p[i]) <= allowed)) return 0;
  if (signedArea(out) * signedArea(p) <= 0) return 0;
  p = out;
  return fit;
}

// True when a side of `p` lies along an edge of the picture: that is the frame cutting an
// object off (or noise at the frame's edge), not an outline.
bool sideAlongEdge(const Corners& p, cv::Size work) {
  constexpr double kMargin = 3.0;
  const double right = work.width - 1 - kMargin, bottom = work.height - 1 - kMargin;
  for (int i = 0; i < 4; ++i) {
    const cv::Point2d a = p[i], b = p[(i + 1) % 4];
    if ((a.x <= kMargin && b.x <= kMargin) || (a.y <= kMargin && b.y <= kMargin) ||
        (a.x >= right && b.x >= right) || (a.y >= bottom && b.y >= bottom))
      return true;
  }
  return false;
}

// Moves the corners of a quad approximating `hull` to the crossings of its sides' lines. The
// quad's vertices are hull points; on a rounded corner they sit on the arc, several pixels
// inside the corner the sides span. The longest hull edge between two vertices lies on that
// side itself, so the lines through those edges meet at the sharp corners.
void sharpenCorners(const std::vector<cv::Point>& hull, const std::vector<cv::Point>& poly,
                    Corners* quad) {
  const size_t n = hull.size();
  std::array<size_t, 4> at{};
  for (size_t i = 0; i < 4; ++i) {
    const auto it = std::find(hull.begin(), hull.end(), poly[i]);
    if (it == hull.end()) return;
    at[i] = static_cast<size_t>(it - hull.begin());
  }
  std::array<std::pair<cv::Point2d, cv::Point2d>, 4> sides;  // a point and a direction
  for (size_t i = 0; i < 4; ++i) {
    cv::Point2d a = poly[i], b = poly[(i + 1) % 4];
    const double chord = cv::norm(b - a);
    double longest = 0;
    for (size_t k = at[i]; k != at[(i + 1) % 4]; k = (k + 1) % n) {
      const cv::Point2d p = hull[k], q = hull[(k + 1) % n];
      if (cv::norm(q - p) > longest) {
        longest = cv::norm(q - p);
        a = p;
        b = q;
      }
    }
    if (longest < 0.3 * chord) return;
    sides[i] = {a, (b - a) / cv::norm(b - a)};
  }
  Corners sharp;
  for (size_t i = 0; i < 4; ++i) {
    const auto& [p1, d1] = sides[(i + 3) % 4];
    const auto& [p2, d2] = sides[i];
    const double den = cross(d1, d2);
    if (std::abs(den) < 1e-6) return;
    sharp[i] = p1 + d1 * (cross(p2 - p1, d2) / den);
    if (cv::norm(sharp[i] - (*quad)[i]) >
        0.2 * std::min(sideLength(*quad, static_cast<int>(i)),
                       sideLength(*quad, (static_cast<int>(i) + 3) % 4)))
      return;
  }
  *quad = sharp;
}

// The convex quadrilateral a contour outlines, in work-picture pixel centres; false when the
// contour is not one.
bool quadOfContour(const std::vector<cv::Point>& contour, double minArea, cv::Size work,
                   Corners* quad) {
  const cv::Rect box = cv::boundingRect(contour);
  if (static_cast<double>(box.width) * box.height < minArea) return false;
  std::vector<cv::Point> hull;
  cv::convexHull(contour, hull);
  const double hullArea = cv::contourArea(hull);
  if (hullArea < minArea) return false;
  if (std::abs(cv::contourArea(contour)) < kMinSolidity * hullArea) return false;
  const double perimeter = cv::arcLength(hull, true);
  std::vector<cv::Point> poly;
  for (double eps : {0.02, 0.03, 0.045}) {
    cv::approxPolyDP(hull, poly, eps * perimeter, true);
    if (poly.size() <= 4) break;
  }
  if (poly.size() != 4) return false;
  if (!cv::isContourConvex(poly)) return false;
  if (std::abs(cv::contourArea(poly)) < kMinQuadFill * hullArea) return false;
  for (int i = 0; i < 4; ++i) (*quad)[i] = cv::Point2d(poly[i].x, poly[i].y);
  if (!anglesPlausible(*quad)) return false;
  if (sideAlongEdge(*quad, work)) return false;
  sharpenCorners(hull, poly, quad);
  return true;
}

// True when two quads outline the same thing: every corner of one near a corner of the other.
bool sameQuad(const Corners& a, const Corners& b, double tolerance) {
  for (const cv::Point2d& p : a) {
    bool near = false;
    for (const cv::Point2d& q : b) near = near || cv::norm(p - q) <= tolerance;
    if (!near) return false;
  }
  return true;
}

// A straight run of an edge contour, in work-picture pixels.
struct Segment {
  cv::Point2d a, b;
  double length = 0;
};

// The straight runs of at least `minLength` along a contour. Where clutter touches an outline
// the contour wanders off into it, but the outline's sides stay straight runs of the contour.
// Runs along the picture's edge are skipped: contours of edges cut off by the frame follow
// its first and last rows and columns.
void collectSegments(const std::vector<cv::Point>& contour, double minLength, cv::Size work,
                     std::vector<Segment>& out) {
  const cv::Rect box = cv::boundingRect(contour);
  if (std::max(box.width, box.height) < minLength) return;
  std::vector<cv::Point> poly;
  cv::approxPolyDP(contour, poly, 1.5, true);
  const int right = work.width - 4, bottom = work.height - 4;
  for (size_t i = 0; i < poly.size(); ++i) {
    const cv::Point a = poly[i], b = poly[(i + 1) % poly.size()];
    if ((a.x <= 3 && b.x <= 3) || (a.y <= 3 && b.y <= 3) || (a.x >= right && b.x >= right) ||
        (a.y >= bottom && b.y >= bottom))
      continue;
    const double length = cv::norm(cv::Point2d(b - a));
    if (length >= minLength) out.push_back({a, b, length});
  }
}

// Collinear segments gathered into one line, with the stretches of it they cover.
struct Line {
  cv::Point2d dir, normal;
  double offset = 0;                             // normal . x on the line
  std::vector<std::pair<double, double>> spans;  // along dir (dir . x), merged, sorted
  double covered = 0;
  std::vector<const Segment*> members;

  // Length of the stretch [t0, t1] (in dir . x) that segments cover.
  double coverage(double t0, double t1) const {
    if (t0 > t1) std::swap(t0, t1);
    double sum = 0;
    for (const auto& [a, b] : spans) sum += std::max(0.0, std::min(b, t1) - std::max(a, t0));
    return sum;
  }

  // Fits the line to its members' ends (weighted by length, so the long runs decide) and
  // records the stretches they cover.
  void settle() {
    double w = 0, mx = 0, my = 0;
    for (const Segment* s : members) {
      w += 2 * s->length;
      mx += (s->a.x + s->b.x) * s->length;
      my += (s->a.y + s->b.y) * s->length;
    }
    mx /= w;
    my /= w;
    double sxx = 0, sxy = 0, syy = 0;
    for (const Segment* s : members)
      for (const cv::Point2d& p : {s->a, s->b}) {
        sxx += (p.x - mx) * (p.x - mx) * s->length;
        sxy += (p.x - mx) * (p.y - my) * s->length;
        syy += (p.y - my) * (p.y - my) * s->length;
      }
    const double angle = 0.5 * std::atan2(2 * sxy, sxx - syy);
    cv::Point2d d(std::cos(angle), std::sin(angle));
    if (d.dot(dir) < 0) d = -d;
    dir = d;
    normal = cv::Point2d(-dir.y, dir.x);
    offset = normal.dot(cv::Point2d(mx, my));
    spans.clear();
    for (const Segment* s : members) {
      const double t0 = dir.dot(s->a), t1 = dir.dot(s->b);
      spans.emplace_back(std::min(t0, t1), std::max(t0, t1));
    }
    std::sort(spans.begin(), spans.end());
    std::vector<std::pair<double, double>> merged;
    for (const auto& span : spans) {
      if (!merged.empty() && span.first <= merged.back().second)
        merged.back().second = std::max(merged.back().second, span.second);
      else
        merged.push_back(span);
    }
    spans = std::move(merged);
    covered = 0;
    for (const auto& [a, b] : spans) covered += b - a;
  }
};

// Groups segments into lines: a segment joins a line when it runs within a few degrees of it
// and both its ends lie within four pixels (the two sides of one edge band do).
std::vector<Line> gatherLines(std::vector<Segment>& segments, size_t keep) {
  constexpr size_t kMaxLines = 400;
  const double maxSin = std::sin(3.0 * CV_PI / 180.0);
  constexpr double kMaxOffset = 4.0;
  std::sort(segments.begin(), segments.end(),
            [](const Segment& x, const Segment& y) { return x.length > y.length; });
  std::vector<Line> lines;
  lines.reserve(kMaxLines);
  for (const Segment& s : segments) {
    const cv::Point2d dir = (s.b - s.a) / s.length;
    Line* home = nullptr;
    for (Line& l : lines) {
      if (std::abs(cross(dir, l.dir)) <= maxSin &&
          std::abs(l.normal.dot(s.a) - l.offset) <= kMaxOffset &&
          std::abs(l.normal.dot(s.b) - l.offset) <= kMaxOffset) {
        home = &l;
        break;
      }
    }
    if (!home) {
      if (lines.size() >= kMaxLines) continue;
      Line l;
      l.dir = dir;
      l.normal = cv::Point2d(-dir.y, dir.x);
      l.offset = l.normal.dot(s.a);
      lines.push_back(std::move(l));
      home = &lines.back();
    }
    home->members.push_back(&s);
  }
  for (Line& l : lines) l.settle();
  std::sort(lines.begin(), lines.end(),
            [](const Line& x, const Line& y) { return x.covered > y.covered; });
  if (lines.size() > keep) lines.resize(keep);
  return lines;
}

bool intersect(const Line& l1, const Line& l2, cv::Point2d* at) {
  // Solve n1 . x = o1, n2 . x = o2.
  const double det = l1.normal.x * l2.normal.y - l1.normal.y * l2.normal.x;
  if (std::abs(det) < 1e-9) return false;
  *at = cv::Point2d((l1.offset * l2.normal.y - l2.offset * l1.normal.y) / det,
                    (l1.normal.x * l2.offset - l2.normal.x * l1.offset) / det);
  return true;
}

// A candidate outline and how much of it the edges show (1 for a closed contour).
struct Found {
  Corners p;
  double support = 1;
};

// Quads whose four sides lie on four of `lines` and are mostly covered by edge segments: the
// outlines that clutter touching the object breaks out of any single contour.
void lineQuads(const std::vector<Line>& lines, double minArea, double minSide, cv::Size work,
               std::vector<Found>& out) {
  constexpr double kMinSideCoverage = 0.5;
  constexpr double kMinCoverage = 0.7;
  constexpr double kOvershootWindow = 0.1;
  constexpr double kMaxOvershoot = 0.5;
  const double parallelSin = std::sin(30.0 * CV_PI / 180.0);
  const double crossCos = std::cos(kMinAngleDeg * CV_PI / 180.0);
  std::vector<std::pair<size_t, size_t>> pairs;  // roughly opposite sides
  for (size_t i = 0; i < lines.size(); ++i)
    for (size_t j = i + 1; j < lines.size(); ++j) {
      if (std::abs(cross(lines[i].dir, lines[j].dir)) > parallelSin) continue;
      // Apart by at least a side, measured from the middle of the first line's edge.
      const Line& a = lines[i];
      const double mid = 0.5 * (a.spans.front().first + a.spans.back().second);
      const cv::Point2d middle = a.dir * mid + a.normal * a.offset;
      if (std::abs(lines[j].normal.dot(middle) - lines[j].offset) < minSide) continue;
      pairs.emplace_back(i, j);
    }
  // Where two lines could meet at a corner: crossing steeply enough, inside the picture.
  const size_t n = lines.size();
  const cv::Rect2d frame(0, 0, work.width - 1, work.height - 1);
  std::vector<cv::Point2d> crossing(n * n);
  std::vector<uint8_t> corner(n * n, 0);
  for (size_t i = 0; i < n; ++i)
    for (size_t k = i + 1; k < n; ++k) {
      cv::Point2d at;
      if (std::abs(lines[i].dir.dot(lines[k].dir)) > crossCos ||
          !intersect(lines[i], lines[k], &at) || !frame.contains(at))
        continue;
      crossing[i * n + k] = crossing[k * n + i] = at;
      corner[i * n + k] = corner[k * n + i] = 1;
    }
  for (size_t u = 0; u < pairs.size(); ++u)
    for (size_t v = u + 1; v < pairs.size(); ++v) {
      const auto [i, j] = pairs[u];
      const auto [k, l] = pairs[v];
      // Round the outline: i meets k, k meets j, j meets l, l meets i.
      if (i == k || i == l || j == k || j == l || !corner[i * n + k] || !corner[k * n + j] ||
          !corner[j * n + l] || !corner[l * n + i])
        continue;
      const Corners q = {crossing[i * n + k], crossing[k * n + j], crossing[j * n + l],
                         crossing[l * n + i]};
      // Edge along the sides first: most combinations fail there, and it is cheap.
      const Line* side[4] = {&lines[k], &lines[j], &lines[l], &lines[i]};  // q[c] to q[c + 1]
      std::array<double, 4> ta, tb;
      double covered = 0, perimeter = 0, weakest = 1;
      bool sidesShown = true;
      for (size_t c = 0; c < 4 && sidesShown; ++c) {
        const double length = cv::norm(q[(c + 1) % 4] - q[c]);
        ta[c] = side[c]->dir.dot(q[c]);
        tb[c] = side[c]->dir.dot(q[(c + 1) % 4]);
        const double shown = side[c]->coverage(ta[c], tb[c]);
        sidesShown = length >= minSide && shown >= kMinSideCoverage * length;
        weakest = std::min(weakest, shown / length);
        covered += shown;
        perimeter += length;
      }
      if (!sidesShown || covered < kMinCoverage * perimeter || sideAlongEdge(q, work)) continue;
      const double area = signedArea(q);
      if (std::abs(area) < minArea) continue;
      bool convex = true;
      for (size_t c = 0; c < 4 && convex; ++c)
        convex = cross(q[(c + 1) % 4] - q[c], q[(c + 2) % 4] - q[(c + 1) % 4]) * area > 0;
      if (!convex || !anglesPlausible(q)) continue;
      // An outline's sides end at its corners. A side whose edge runs on past a corner meets
      // the other side in a T or a cross: lines of two different things (a frame and the
      // print inside it, a grid's rows and columns).
      double overshoot = 0;
      for (size_t c = 0; c < 4; ++c) {
        const double reach = std::max(4.0, kOvershootWindow * std::abs(tb[c] - ta[c]));
        const double out = ta[c] < tb[c] ? -reach : reach;
        overshoot = std::max({overshoot, side[c]->coverage(ta[c] + out, ta[c]) / reach,
                              side[c]->coverage(tb[c], tb[c] - out) / reach});
      }
      if (overshoot > kMaxOvershoot) continue;
      // Support: the mean and the weakest side's share of edge. A quad borrowing one side from
      // something else (a cable running off the corner) shows it on one side only.
      out.push_back({q, 0.5 * (covered / perimeter + weakest) * (1.0 - overshoot)});
    }
}

// One edge pass: the edge bands of `blurred`; closed outlines go to `found`, straight runs to
// `segments`.
void edgePass(const cv::Mat& blurred, double minArea, double minLength, std::vector<Found>& found,
              std::vector<Segment>& segments) {
  cv::Mat edges;
  cv::morphologyEx(blurred, edges, cv::MORPH_GRADIENT, cv::Mat());
  cv::threshold(edges, edges, kEdgeStep, 255, cv::THRESH_BINARY);
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(edges, contours, cv::RETR_LIST, cv::CHAIN_APPROX_SIMPLE);
  Corners quad;
  for (const auto& contour : contours)
    if (quadOfContour(contour, minArea, blurred.size(), &quad)) found.push_back({quad, 1.0});
  for (const auto& contour : contours)
    collectSegments(contour, minLength, blurred.size(), segments);
}

class OpenCVRectangleDetector final : public RectangleDetector {
 public:
  explicit OpenCVRectangleDetector(const RectangleDetectorOptions& options) : options_(options) {
    options_.maxFeatureCount = std::max(1, options_.maxFeatureCount);
  }

  std::vector<RectangleFeature> featuresInImage(const PixelBuffer& frame) const override {
    const uint32_t format = frame.pixelFormat();
    const bool biPlanar = format == kPixelFormat420f || format == kPixelFormat420v;
    if (!biPlanar && format != kPixelFormatBGRA) return {};
    if (!frame.lockBaseAddress(kPixelBufferLockReadOnly)) return {};
    std::vector<RectangleFeature> out;
    const uint8_t* base = frame.baseAddressOfPlane(0);
    const size_t width = frame.widthOfPlane(0), height = frame.heightOfPlane(0);
    const size_t bpr = frame.bytesPerRowOfPlane(0);
    const size_t pixelBytes = biPlanar ? 1 : 4;
    if (base && fits(width, height) && bpr / pixelBytes >= width) {
      try {
        const int type = biPlanar ? CV_8UC1 : CV_8UC4;
        cv::Mat view(static_cast<int>(height), static_cast<int>(width), type,
                     const_cast<uint8_t*>(base), bpr);
        if (biPlanar) {
          out = detect(view);
        } else {
          cv::Mat gray;
          cv::cvtColor(view, gray, cv::COLOR_BGRA2GRAY);
          out = detect(gray);
        }
      } catch (const std::exception&) {
        out.clear();
      }
    }
    frame.unlockBaseAddress(kPixelBufferLockReadOnly);
    return out;
  }

  std::vector<RectangleFeature> featuresInImage(const Image& image) const override {
    const Bitmap* bitmap = ImageAccess::bitmap(image);
    if (!bitmap || !fits(bitmap->width, bitmap->height)) return {};
    try {
      const cv::Mat view = matView(*bitmap);
      switch (bitmap->layout) {
        case PixelLayout::Gray8:
          return detect(view);
        case PixelLayout::RGB24:
        case PixelLayout::RGBA32:
        case PixelLayout::BGRA32Premultiplied: {
          cv::Mat gray;
          cv::cvtColor(view, gray,
                       bitmap->layout == PixelLayout::RGB24    ? cv::COLOR_RGB2GRAY
                       : bitmap->layout == PixelLayout::RGBA32 ? cv::COLOR_RGBA2GRAY
                                                               : cv::COLOR_BGRA2GRAY);
          return detect(gray);
        }
      }
    } catch (const std::exception&) {
    }
    return {};
  }

 private:
  // Sizes OpenCV can hold (int rows and columns) and large enough to search.
  static bool fits(size_t width, size_t height) {
    constexpr size_t kMaxSide = 1u << 20;
    return width >= kMinFrameSide && height >= kMinFrameSide && width <= kMaxSide &&
           height <= kMaxSide;
  }

  std::vector<RectangleFeature> detect(const cv::Mat& gray) const {
    const bool high = options_.accuracy == RectangleAccuracy::High;
    const int workSide = high ? kHighWorkSide : kLowWorkSide;
    // Reduced by a whole factor: each work pixel is the mean of a factor x factor block,
    // which OpenCV's area resampling does in one cheap pass (other scales cost ten times as
    // much), and work coordinates map back by that factor exactly.
    const int factor = (std::max(gray.cols, gray.rows) + workSide - 1) / workSide;
    if (std::min(gray.cols, gray.rows) / factor < kMinFrameSide) return {};
    cv::Mat work = gray;
    if (factor > 1) cv::resize(gray, work, cv::Size(), 1.0 / factor, 1.0 / factor, cv::INTER_AREA);
    const double sx = factor, sy = factor;

    // High's copy is smoothed so that texture (wood grain, paper fibre) stays below the edge
    // step; Low's smaller copy is smoothed enough by the reduction itself, and more blur there
    // would erase thin outlines (a printed card's hairline border).
    // Into a Mat of its own: `work` may be the caller's pixels (a picture needing no
    // reduction), which a blur into a shared header would overwrite.
    cv::Mat blurred;
    if (high)
      cv::GaussianBlur(work, blurred, cv::Size(5, 5), 0);
    else
      blurred = work;
    const double minArea = kMinAreaFraction * work.cols * work.rows;
    const double minSide = std::sqrt(minArea / 2.5);
    const double minLength = std::max(10.0, 0.4 * minSide);
    std::vector<Found> found;
    std::vector<Segment> segments;
    edgePass(blurred, minArea, minLength, found, segments);
    lineQuads(gatherLines(segments, kMaxLines), minArea, minSide, work.size(), found);

    // Work-picture pixel centres to full-picture pixel centres.
    for (Found& f : found)
      for (cv::Point2d& c : f.p) c = cv::Point2d((c.x + 0.5) * sx - 0.5, (c.y + 0.5) * sy - 0.5);

    // Rank, then merge repeats of an outline (both sides of an edge band, closed contours and
    // lines find the same ones).
    const cv::Point2d centre((gray.cols - 1) * 0.5, (gray.rows - 1) * 0.5);
    std::vector<Candidate> ranked;
    for (const Found& f : found) {
      Candidate c{f.p, std::abs(signedArea(f.p)), 0, f.support};
      if (rank(c, centre)) ranked.push_back(c);
    }
    const double reach = std::max(sx, sy) * 1.5 + 1.0;
    // Edge bands are some three work pixels wide.
    const double band = 3.0 * std::max(sx, sy) + 1.0;
    std::vector<Candidate> kept = distinct(std::move(ranked), reach, band);
    // Only the leaders are refined and ranked again; refining moves corners by a few pixels,
    // which can reorder near neighbours but not lift the tail.
    const size_t leaders = static_cast<size_t>(options_.maxFeatureCount) + 2;
    if (kept.size() > leaders) kept.resize(leaders);
    std::vector<Candidate> refined;
    for (Candidate c : kept) {
      // The full picture's (or at Low the work copy's) word on the quad replaces the edge
      // bands' evidence, which clutter touching an outline can fake.
      if (high) {
        for (int pass = 0; pass < 2; ++pass) c.support = refine(gray, reach, c.p);
      } else {
        for (cv::Point2d& q : c.p) q = cv::Point2d((q.x + 0.5) / sx - 0.5, (q.y + 0.5) / sy - 0.5);
        c.support = refine(work, 2.5, c.p);  // reach of a work pixel and a half
        for (cv::Point2d& q : c.p) q = cv::Point2d((q.x + 0.5) * sx - 0.5, (q.y + 0.5) * sy - 0.5);
      }
      if (c.support < kMinFit) continue;
      c.area = std::abs(signedArea(c.p));
      if (rank(c, centre)) refined.push_back(c);
    }
    kept = distinct(std::move(refined), reach, band);
    if (kept.size() > static_cast<size_t>(options_.maxFeatureCount))
      kept.resize(static_cast<size_t>(options_.maxFeatureCount));
    std::vector<RectangleFeature> out;
    out.reserve(kept.size());
    for (const Candidate& c : kept) out.push_back(feature(c.p, gray.rows));
    return out;
  }

  // Sorts by score, best first, and keeps the best of every group of near-identical quads
  // (within `reach` plus 3 % of the quad's size). A member within `band` of the best one is
  // the other side of the same edge band, one a little outside the edge and one a little
  // inside: their corners are averaged, which puts them on the edge itself.
  static std::vector<Candidate> distinct(std::vector<Candidate> all, double reach, double band) {
    std::stable_sort(all.begin(), all.end(),
                     [](const Candidate& a, const Candidate& b) { return a.score > b.score; });
    std::vector<Candidate> kept;
    std::vector<int> members;
    for (const Candidate& c : all) {
      size_t k = 0;
      while (k < kept.size() && !sameQuad(kept[k].p, c.p, reach + 0.03 * std::sqrt(c.area))) ++k;
      if (k == kept.size()) {
        kept.push_back(c);
        members.push_back(1);
      } else if (sameQuad(kept[k].p, c.p, band)) {
        const double n = members[k]++;
        for (cv::Point2d& corner : kept[k].p) {
          const cv::Point2d* match = &c.p[0];
          for (const cv::Point2d& q : c.p)
            if (cv::norm(q - corner) < cv::norm(*match - corner)) match = &q;
          corner = (corner * n + *match) / (n + 1);
        }
      }
    }
    return kept;
  }

  // Scores a candidate by area, closeness to the aspect-ratio hint and how much of its
  // outline the edges show. The hint only ranks: a rectangle of another shape scores lower
  // but is still reported when nothing closer to the hint is in view. False only for a quad
  // whose shape cannot be measured (a side of length 0).
  bool rank(Candidate& c, cv::Point2d centre) const {
    c.score = c.area * c.support * c.support;
    if (!(options_.aspectRatio > 0)) return true;
    const double hint = std::max(options_.aspectRatio, 1.0 / options_.aspectRatio);
    const double ratio = options_.focalLength > 0
                             ? perspectiveRatio(c.p, options_.focalLength, centre)
                             : flatRatio(c.p);
    if (!(ratio > 0)) return false;
    const double d = std::abs(std::log(ratio / hint)) / kRatioRankScale;
    c.score /= 1.0 + d * d;
    return true;
  }

  // The feature of a quad in top-left pixel centres, in the bottom-left (y up) convention.
  static RectangleFeature feature(Corners p, int height) {
    std::array<Point, 4> q;
    for (int i = 0; i < 4; ++i)
      q[static_cast<size_t>(i)] = Point{p[i].x + 0.5, height - (p[i].y + 0.5)};
    // Clockwise as seen (y up) is a negative signed area.
    double s = 0;
    for (int i = 0; i < 4; ++i) s += q[i].x * q[(i + 1) % 4].y - q[(i + 1) % 4].x * q[i].y;
    if (s > 0) std::reverse(q.begin(), q.end());
    size_t first = 0;
    for (size_t i = 1; i < 4; ++i) {
      const double a = q[i].x - q[i].y, b = q[first].x - q[first].y;
      if (a < b || (a == b && q[i].y > q[first].y)) first = i;
    }
    RectangleFeature f;
    f.topLeft = q[first];
    f.topRight = q[(first + 1) % 4];
    f.bottomRight = q[(first + 2) % 4];
    f.bottomLeft = q[(first + 3) % 4];
    double x0 = q[0].x, x1 = q[0].x, y0 = q[0].y, y1 = q[0].y;
    for (const Point& c : q) {
      x0 = std::min(x0, c.x);
      x1 = std::max(x1, c.x);
      y0 = std::min(y0, c.y);
      y1 = std::max(y1, c.y);
    }
    f.bounds = Rect(x0, y0, x1 - x0, y1 - y0);
    return f;
  }

  RectangleDetectorOptions options_;
};

}  // namespace

std::shared_ptr<const RectangleDetector> createRectangleDetector(
    const RectangleDetectorOptions& options) {
  return std::make_shared<const OpenCVRectangleDetector>(options);
}

}  // namespace kwq::platform
