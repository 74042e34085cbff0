// The rectangle detector over OpenCV.
//
// Edges are found on a reduced "work" copy of the gray picture: Canny, a one-pixel dilation
// that closes the small gaps which texture and noise leave in an outline, then every contour
// of the edge map. A contour becomes a candidate when its convex hull is, within a few per
// cent of its area, a convex quadrilateral with sensible angles; rounded corners (cards) fall
// inside that tolerance. Candidates are merged, refined on the full picture (High accuracy)
// and ranked by area times closeness to the aspect-ratio hint.

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
// Tolerances of the aspect-ratio tests (see the header).
constexpr double kFlatRatioTolerance = 0.25;
constexpr double kPerspectiveRatioTolerance = 0.15;
// Ranking: a shape differing from the hint by this much in log ratio counts half.
constexpr double kRatioRankScale = 0.15;

using Corners = std::array<cv::Point2d, 4>;  // round the outline, top-left origin, pixel centres

struct Candidate {
  Corners p;
  double area = 0;
  double score = 0;
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
  const double lo = std::cos(kMaxAngleDeg * CV_PI / 180.0);
  const double hi = std::cos(kMinAngleDeg * CV_PI / 180.0);
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

// Bilinear sample of an 8-bit picture of at least 2 x 2 pixels; false outside it.
bool sample(const cv::Mat& g, double x, double y, double* v) {
  if (!(x >= 0) || !(y >= 0) || x > g.cols - 1 || y > g.rows - 1) return false;
  const int x0 = std::min(static_cast<int>(x), g.cols - 2);
  const int y0 = std::min(static_cast<int>(y), g.rows - 2);
  const double fx = x - x0, fy = y - y0;
  const uint8_t* r0 = g.ptr<uint8_t>(y0);
  const uint8_t* r1 = g.ptr<uint8_t>(y0 + 1);
  *v =
      (r0[x0] * (1 - fx) + r0[x0 + 1] * fx) * (1 - fy) + (r1[x0] * (1 - fx) + r1[x0 + 1] * fx) * fy;
  return true;
}

// Re-fits each side of `p` to the strongest edge within `reach` pixels of it on the full
// picture and intersects neighbouring sides. Only the middle of each side is used, so rounded
// corners do not pull the lines; the corners become those of the sharp rectangle the sides
// span. Leaves `p` as it is when a side finds too little edge or the result strays.
void refine(const cv::Mat& gray, double reach, Corners& p) {
  constexpr double kMinStep = 6.0;  // gray levels across two pixels that count as an edge
  std::array<cv::Vec4d, 4> lines;   // direction, point
  const int radius = static_cast<int>(std::ceil(reach));
  std::vector<double> profile(static_cast<size_t>(2 * radius + 3));
  for (int i = 0; i < 4; ++i) {
    const cv::Point2d a = p[i], b = p[(i + 1) % 4];
    const double length = cv::norm(b - a);
    if (length < 4) return;
    const cv::Point2d dir = (b - a) / length, normal(-dir.y, dir.x);
    const int count = std::clamp(static_cast<int>(length / 4), 8, 64);
    std::vector<cv::Point2f> found, rising, falling;
    for (int s = 0; s < count; ++s) {
      const double t = 0.12 + 0.76 * s / (count - 1);
      const cv::Point2d at = a + (b - a) * t;
      bool inside = true;
      for (int k = -radius - 1; k <= radius + 1 && inside; ++k) {
        const cv::Point2d q = at + normal * static_cast<double>(k);
        inside = sample(gray, q.x, q.y, &profile[static_cast<size_t>(k + radius + 1)]);
      }
      if (!inside) continue;
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
      (bestStep > 0 ? rising : falling)
          .emplace_back(static_cast<float>(e.x), static_cast<float>(e.y));
    }
    // A side separates two surfaces, so its edge has one polarity; the minority is print or
    // texture next to the outline.
    found = rising.size() >= falling.size() ? rising : falling;
    if (static_cast<int>(found.size()) < std::max(5, count / 3)) return;
    cv::Vec4f line;
    cv::fitLine(found, line, cv::DIST_HUBER, 0, 0.01, 0.01);
    lines[static_cast<size_t>(i)] = cv::Vec4d(line[0], line[1], line[2], line[3]);
  }
  Corners out;
  for (int i = 0; i < 4; ++i) {
    const cv::Vec4d& l1 = lines[static_cast<size_t>((i + 3) % 4)];
    const cv::Vec4d& l2 = lines[static_cast<size_t>(i)];
    const cv::Point2d d1(l1[0], l1[1]), d2(l2[0], l2[1]);
    const double den = cross(d1, d2);
    if (std::abs(den) < 1e-6) return;
    const cv::Point2d q1(l1[2], l1[3]), q2(l2[2], l2[3]);
    const double t = cross(q2 - q1, d2) / den;
    out[static_cast<size_t>(i)] = q1 + d1 * t;
  }
  const double shortest =
      std::min({sideLength(p, 0), sideLength(p, 1), sideLength(p, 2), sideLength(p, 3)});
  const double allowed = std::max(3 * reach, 0.08 * shortest);
  for (int i = 0; i < 4; ++i)
    if (!(cv::norm(out[i] - p[i]) <= allowed)) return;
  if (signedArea(out) * signedArea(p) <= 0) return;
  p = out;
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
  // A side lying along the picture's edge is the frame cutting an object off, not an outline.
  for (int i = 0; i < 4; ++i) {
    const cv::Point a = poly[i], b = poly[(i + 1) % 4];
    const int right = work.width - 1, bottom = work.height - 1;
    if ((a.x <= 1 && b.x <= 1) || (a.y <= 1 && b.y <= 1) ||
        (a.x >= right - 1 && b.x >= right - 1) || (a.y >= bottom - 1 && b.y >= bottom - 1))
      return false;
  }
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

// One edge pass: contours of the dilated Canny edges of `blurred`, appended to `quads`.
void edgePass(const cv::Mat& blurred, double low, double high, double minArea,
              std::vector<Corners>& quads) {
  cv::Mat edges;
  cv::Canny(blurred, edges, low, high, 3, true);
  cv::dilate(edges, edges, cv::Mat());
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(edges, contours, cv::RETR_LIST, cv::CHAIN_APPROX_SIMPLE);
  Corners quad;
  for (const auto& contour : contours)
    if (quadOfContour(contour, minArea, blurred.size(), &quad)) quads.push_back(quad);
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
    const double longSide = std::max(gray.cols, gray.rows);
    cv::Mat work = gray;
    if (longSide > workSide) {
      const double s = workSide / longSide;
      const cv::Size size(std::max(1, static_cast<int>(std::lround(gray.cols * s))),
                          std::max(1, static_cast<int>(std::lround(gray.rows * s))));
      if (std::min(size.width, size.height) < kMinFrameSide) return {};
      cv::resize(gray, work, size, 0, 0, cv::INTER_AREA);
    }
    const double sx = static_cast<double>(gray.cols) / work.cols;
    const double sy = static_cast<double>(gray.rows) / work.rows;

    cv::Mat blurred;
    cv::GaussianBlur(work, blurred, cv::Size(5, 5), 0);
    const double minArea = kMinAreaFraction * work.cols * work.rows;
    std::vector<Corners> quads;
    edgePass(blurred, 40, 100, minArea, quads);
    if (high) edgePass(blurred, 15, 40, minArea, quads);

    // Work-picture pixel centres to full-picture pixel centres.
    for (Corners& q : quads)
      for (cv::Point2d& c : q) c = cv::Point2d((c.x + 0.5) * sx - 0.5, (c.y + 0.5) * sy - 0.5);

    // Both sides of a dilated edge and both passes find the same outline: keep the largest.
    std::sort(quads.begin(), quads.end(), [](const Corners& a, const Corners& b) {
      return std::abs(signedArea(a)) > std::abs(signedArea(b));
    });
    const double reach = std::max(sx, sy) * 1.5 + 1.0;
    const cv::Point2d centre((gray.cols - 1) * 0.5, (gray.rows - 1) * 0.5);
    std::vector<Candidate> kept;
    for (Corners& q : quads) {
      const double area = std::abs(signedArea(q));
      const double tolerance = reach + 0.03 * std::sqrt(area);
      bool seen = false;
      for (const Candidate& k : kept) seen = seen || sameQuad(k.p, q, tolerance);
      if (seen) continue;
      Candidate c{q, area, area};
      if (high) {
        refine(gray, reach, c.p);
        c.area = std::abs(signedArea(c.p));
      }
      if (!rank(c, centre)) continue;
      kept.push_back(c);
    }
    std::stable_sort(kept.begin(), kept.end(),
                     [](const Candidate& a, const Candidate& b) { return a.score > b.score; });
    if (kept.size() > static_cast<size_t>(options_.maxFeatureCount))
      kept.resize(static_cast<size_t>(options_.maxFeatureCount));
    std::vector<RectangleFeature> out;
    out.reserve(kept.size());
    for (const Candidate& c : kept) out.push_back(feature(c.p, gray.rows));
    return out;
  }

  // Scores a candidate by area and closeness to the aspect-ratio hint; false when the hint's
  // test rejects it.
  bool rank(Candidate& c, cv::Point2d centre) const {
    c.score = c.area;
    if (!(options_.aspectRatio > 0)) return true;
    const double hint = std::max(options_.aspectRatio, 1.0 / options_.aspectRatio);
    const bool perspective = options_.focalLength > 0;
    const double ratio =
        perspective ? perspectiveRatio(c.p, options_.focalLength, centre) : flatRatio(c.p);
    if (!(ratio > 0)) return false;
    const double off = std::abs(std::log(ratio / hint));
    if (options_.focalLength >= 0) {
      const double tolerance = perspective ? kPerspectiveRatioTolerance : kFlatRatioTolerance;
      if (off > std::log(1.0 + tolerance)) return false;
    }
    const double d = off / kRatioRankScale;
    c.score = c.area / (1.0 + d * d);
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
