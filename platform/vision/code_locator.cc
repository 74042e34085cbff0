// Bar texture by the structure tensor: in each small cell of the picture the averaged outer
// product of the gradient says how strong the edges are, which way they point and how well
// they agree. A PDF417 symbol is a block of cells with strong edges that all point along its
// rows (its bars are parallel whatever the symbol's turn); photographs, faces and most print
// give weaker or less coherent cells. Cells that agree in direction are grown into regions,
// and each region's rectangle is measured along and across that direction.
//
// Within a region, the symbol itself is outlined by its start and stop patterns, which run
// down its left and right edges in every row: lines across the bars read them, a line is
// fitted to each edge's hits, and the edges end where the rows do.

#include "platform/vision/code_locator.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <numbers>
#include <utility>

#include <opencv2/imgproc.hpp>

namespace kwq::platform {
namespace {

// Cell side in analysis pixels: a few modules of the finest symbols readable, so that each
// cell holds several bar edges.
constexpr int kCell = 8;
// Pictures larger than this on their long side are analysed reduced (the symbols that fit
// them have modules wide enough for it).
constexpr int kMaxAnalysisSide = 1600;
// A bar cell: mean squared central difference at least this (an edge of 25 gray levels every
// few pixels), and edges agreeing at least this well (1: all parallel).
constexpr float kMinEnergy = 160.0f;
constexpr float kMinCoherence = 0.55f;
// Neighbouring cells join a region when their directions differ by less than this.
constexpr double kJoinRadians = 14.0 * std::numbers::pi / 180.0;
// The smallest region worth a read: a symbol of a few columns and rows.
constexpr int kMinCells = 8;
// Margins around the cells found: the bars' ends and the start and stop patterns sit at the
// region's edge, where cells are only partly covered.
constexpr double kMarginCells = 1.0;
constexpr double kMaxBarRatio = 2.0;

struct Cell {
  float energy = 0, coherence = 0;
  double angle = 0;  // direction of the gradient, (-pi/2, pi/2]
  bool bar = false;
};

double angleDifference(double a, double b) {
  double d = std::fmod(std::abs(a - b), std::numbers::pi);
  return std::min(d, std::numbers::pi - d);
}

}  // namespace

std::vector<BarRegion> locateBarRegions(const cv::Mat& gray, size_t maxRegions) {
  if (gray.empty() || gray.type() != CV_8UC1 || gray.cols < 32 || gray.rows < 32 || maxRegions == 0)
    return {};
  try {
    cv::Mat picture = gray;
    double toPicture = 1.0;
    const int longSide = std::max(gray.cols, gray.rows);
    if (longSide > kMaxAnalysisSide) {
      toPicture = static_cast<double>(longSide) / 1280.0;
      cv::resize(gray, picture,
                 cv::Size(std::max(1, static_cast<int>(gray.cols / toPicture)),
                          std::max(1, static_cast<int>(gray.rows / toPicture))),
                 0, 0, cv::INTER_AREA);
    }
    const int gw = picture.cols / kCell, gh = picture.rows / kCell;
    if (gw < 2 || gh < 2) return {};
    const cv::Mat analysed = picture(cv::Rect(0, 0, gw * kCell, gh * kCell));

    // The tensor's three sums per cell in one pass over every second row (central
    // differences), with no picture-sized buffers: on a live frame, allocating and touching
    // those would cost more than the sums.
    cv::Mat cxx(gh, gw, CV_32F, cv::Scalar(0)), cyy(gh, gw, CV_32F, cv::Scalar(0)),
        cxy(gh, gw, CV_32F, cv::Scalar(0));
    const float norm = 2.0f / (kCell * kCell);
    for (int y = 1; y + 1 < gh * kCell; y += 2) {
      const uint8_t* up = analysed.ptr<uint8_t>(y - 1);
      const uint8_t* mid = analysed.ptr<uint8_t>(y);
      const uint8_t* down = analysed.ptr<uint8_t>(y + 1);
      float* rxx = cxx.ptr<float>(y / kCell);
      float* ryy = cyy.ptr<float>(y / kCell);
      float* rxy = cxy.ptr<float>(y / kCell);
      for (int cx = 0; cx < gw; ++cx) {
        int sxx = 0, syy = 0, sxy = 0;
        const int x0 = std::max(1, cx * kCell), x1 = std::min(gw * kCell - 1, cx * kCell + kCell);
        for (int x = x0; x < x1; ++x) {
          const int gx = mid[x + 1] - mid[x - 1], gy = down[x] - up[x];
          sxx += gx * gx, syy += gy * gy, sxy += gx * gy;
        }
        rxx[cx] += static_cast<float>(sxx) * norm;
        ryy[cx] += static_cast<float>(syy) * norm;
        rxy[cx] += static_cast<float>(sxy) * norm;
      }
    }
    // Over three cells square: a wide bar or space of a large symbol leaves single cells
    // without edges, which would break the symbol into pieces.
    cv::blur(cxx, cxx, cv::Size(3, 3));
    cv::blur(cyy, cyy, cv::Size(3, 3));
    cv::blur(cxy, cxy, cv::Size(3, 3));

    std::vector<Cell> cells(static_cast<size_t>(gw) * gh);
    for (int y = 0; y < gh; ++y)
      for (int x = 0; x < gw; ++x) {
        const float a = cxx.at<float>(y, x), b = cyy.at<float>(y, x), c = cxy.at<float>(y, x);
        Cell& cell = cells[static_cast<size_t>(y) * gw + x];
        cell.energy = a + b;
        if (!(cell.energy >= kMinEnergy)) continue;
        cell.coherence = std::sqrt((a - b) * (a - b) + 4 * c * c) / cell.energy;
        cell.angle = 0.5 * std::atan2(2.0 * c, static_cast<double>(a - b));
        cell.bar = cell.coherence >= kMinCoherence;
      }

    // Regions: 8-connected cells whose directions agree with their neighbour's.
    std::vector<int> label(cells.size(), -1);
    std::vector<BarRegion> regions;
    std::vector<int> stack, members;
    for (int start = 0; start < static_cast<int>(cells.size()); ++start) {
      if (!cells[start].bar || label[start] >= 0) continue;
      const int id = static_cast<int>(regions.size()) + 1;
      members.clear();
      stack.assign(1, start);
      label[start] = id;
      while (!stack.empty()) {
        const int i = stack.back();
        stack.pop_back();
        members.push_back(i);
        const int x = i % gw, y = i / gw;
        for (int dy = -1; dy <= 1; ++dy)
          for (int dx = -1; dx <= 1; ++dx) {
            const int nx = x + dx, ny = y + dy;
            if ((dx == 0 && dy == 0) || nx < 0 || ny < 0 || nx >= gw || ny >= gh) continue;
            const int j = ny * gw + nx;
            if (!cells[j].bar || label[j] >= 0 ||
                angleDifference(cells[i].angle, cells[j].angle) > kJoinRadians)
              continue;
            label[j] = id;
            stack.push_back(j);
          }
      }
      if (static_cast<int>(members.size()) < kMinCells) {
        regions.push_back({});  // keeps ids in step with labels
        continue;
      }
      // The region's direction: the mean of doubled angles, weighted by coherence.
      double s = 0, c = 0, score = 0;
      for (int i : members) {
        s += cells[i].coherence * std::sin(2 * cells[i].angle);
        c += cells[i].coherence * std::cos(2 * cells[i].angle);
        score += cells[i].coherence;
      }
      const double angle = 0.5 * std::atan2(s, c);
      const double ux = std::cos(angle), uy = std::sin(angle);
      double minA = 1e18, maxA = -1e18, minB = 1e18, maxB = -1e18;
      for (int i : members) {
        const double px = (i % gw + 0.5) * kCell, py = (i / gw + 0.5) * kCell;
        const double a = px * ux + py * uy, b = -px * uy + py * ux;
        minA = std::min(minA, a), maxA = std::max(maxA, a);
        minB = std::min(minB, b), maxB = std::max(maxB, b);
      }
      // Across the bars more: the stop pattern's thin bars next to plain card often fall
      // short of a bar cell, and zxing wants the whole symbol.
      const double margin = (0.5 + kMarginCells) * kCell;
      const double across = margin + kCell + 0.05 * (maxA - minA);
      minA -= across, maxA += across, minB -= margin, maxB += margin;
      const double a = 0.5 * (minA + maxA), b = 0.5 * (minB + maxB);
      // A symbol's bars are at most about twice as long as it is wide (few columns, many
      // rows); longer runs of parallel lines are stripes, railings, wood.
      if (maxB - minB > kMaxBarRatio * (maxA - minA)) {
        regions.push_back({});
        continue;
      }
      BarRegion r;
      // Analysis pixel centres sit at (i + 0.5) toPicture - 0.5 in the picture.
      r.centre = {(a * ux - b * uy) * toPicture - 0.5, (a * uy + b * ux) * toPicture - 0.5};
      r.angle = angle;
      r.length = (maxA - minA) * toPicture;
      r.height = (maxB - minB) * toPicture;
      r.score = score;
      regions.push_back(r);
    }
    std::erase_if(regions, [](const BarRegion& r) { return r.score <= 0; });
    std::sort(regions.begin(), regions.end(),
              [](const BarRegion& p, const BarRegion& q) { return p.score > q.score; });
    if (regions.size() > maxRegions) regions.resize(maxRegions);
    return regions;
  } catch (const std::exception&) {
    return {};
  }
}

namespace {

// The start and stop patterns' bars and spaces in modules as a line across the symbol meets
// them, from the symbol's left (forward) or from its right (reverse); `dark`: the first
// element is a bar.
struct Pattern {
  std::array<double, 9> widths;
  size_t count;
  bool dark;
  bool start;    // start pattern (left edge) or stop pattern (right edge)
  bool reverse;  // read from the symbol's right to its left
};
constexpr Pattern kPatterns[] = {
    {{8, 1, 1, 1, 1, 1, 1, 3}, 8, true, true, false},
    {{3, 1, 1, 1, 1, 1, 1, 8}, 8, false, true, true},
    {{7, 1, 1, 3, 1, 1, 1, 2, 1}, 9, true, false, false},
    {{1, 2, 1, 1, 1, 3, 1, 1, 7}, 9, true, false, true},
};
// Contrast below which a stretch of a line holds no bars (glare, plain paper).
constexpr float kMinLineContrast = 24.0f;
// Lines of the first, sparse scan across a region.
constexpr int kSparseLines = 24;
// Samples per picture pixel along a line: two, so that the single-module elements of symbols
// with 1.5-pixel modules still span three samples.
constexpr double kSamplesPerPixel = 2.0;
constexpr int kMaxLineSamples = 4096;
// The fewest hits on each edge that make a symbol.
constexpr size_t kMinEdgeHits = 3;

struct Run {
  double begin, end;  // in samples, edges interpolated between samples
  bool dark;
};

struct Hit {
  const Pattern* pattern;
  double along;   // the symbol's outer edge on the line, samples
  double module;  // samples
};

// A line of the picture sampled bilinearly from `from` in steps of `step`; samples off the
// picture repeat its border.
void sampleLine(const cv::Mat& gray, cv::Point2d from, cv::Point2d step, int n,
                std::vector<float>& out) {
  out.resize(static_cast<size_t>(n));
  const int w = gray.cols, h = gray.rows;
  for (int i = 0; i < n; ++i) {
    // (Written so that a NaN lands on the border too.)
    const double x = from.x + i * step.x >= 0 ? std::min(from.x + i * step.x, w - 1.0) : 0.0;
    const double y = from.y + i * step.y >= 0 ? std::min(from.y + i * step.y, h - 1.0) : 0.0;
    const int x0 = std::min(static_cast<int>(x), w - 2 < 0 ? 0 : w - 2);
    const int y0 = std::min(static_cast<int>(y), h - 2 < 0 ? 0 : h - 2);
    const int x1 = std::min(x0 + 1, w - 1), y1 = std::min(y0 + 1, h - 1);
    const float fx = static_cast<float>(x - x0), fy = static_cast<float>(y - y0);
    const uint8_t* r0 = gray.ptr<uint8_t>(y0);
    const uint8_t* r1 = gray.ptr<uint8_t>(y1);
    const float top = r0[x0] + fx * (r0[x1] - r0[x0]);
    const float bottom = r1[x0] + fx * (r1[x1] - r1[x0]);
    out[static_cast<size_t>(i)] = top + fy * (bottom - top);
  }
}

// Bars and spaces of a sampled line, thresholded halfway between the darkest and lightest
// samples within a block either side (so that glare and shading across a symbol do not move
// the threshold off its bars). Edges are placed where the line crosses the threshold.
void runsOf(const std::vector<float>& f, int block, std::vector<Run>& runs) {
  runs.clear();
  const int n = static_cast<int>(f.size());
  if (n < 2 || block < 1) return;
  const int blocks = (n + block - 1) / block;
  std::vector<float> lo(static_cast<size_t>(blocks), 255.0f), hi(static_cast<size_t>(blocks), 0.0f);
  for (int i = 0; i < n; ++i) {
    lo[static_cast<size_t>(i / block)] = std::min(lo[static_cast<size_t>(i / block)], f[i]);
    hi[static_cast<size_t>(i / block)] = std::max(hi[static_cast<size_t>(i / block)], f[i]);
  }
  std::vector<float> threshold(static_cast<size_t>(blocks));
  for (int k = 0; k < blocks; ++k) {
    float l = 255, h = 0;
    for (int j = std::max(0, k - 1); j <= std::min(blocks - 1, k + 1); ++j)
      l = std::min(l, lo[static_cast<size_t>(j)]), h = std::max(h, hi[static_cast<size_t>(j)]);
    threshold[static_cast<size_t>(k)] = h - l < kMinLineContrast ? -1.0f : 0.5f * (l + h);
  }
  bool dark = f[0] < threshold[0];
  double begin = 0;
  for (int i = 1; i < n; ++i) {
    const float t = threshold[static_cast<size_t>(i / block)];
    const bool d = f[i] < t;
    if (d == dark) continue;
    const float a = f[i - 1], b = f[i];
    const double edge = (i - 1) + (a != b ? std::clamp((t - a) / (b - a), 0.0f, 1.0f) : 0.5f);
    runs.push_back({begin, edge, dark});
    begin = edge;
    dark = d;
  }
  runs.push_back({begin, static_cast<double>(n - 1), dark});
}

// Start and stop patterns among the runs. Each element must be within a module and a
// quarter of its own width of its share of the whole pattern: blur and a threshold off the
// middle widen bars or spaces by a fraction of a module, and the wide bar (8 or 7 modules) is
// wider than any element of the codewords (6 at most).
void findPatterns(const std::vector<Run>& runs, std::vector<Hit>& hits) {
  hits.clear();
  for (const Pattern& p : kPatterns) {
    double total = 0;
    for (size_t k = 0; k < p.count; ++k) total += p.widths[k];
    // The first and last runs end at the line's ends: they take part only as quiet zone.
    for (size_t j = 1; j + p.count < runs.size(); ++j) {
      if (runs[j].dark != p.dark) continue;
      const double span = runs[j + p.count - 1].end - runs[j].begin;
      const double module = span / total;
      if (module < 0.5) continue;
      bool match = true;
      for (size_t k = 0; k < p.count && match; ++k) {
        const double w = (runs[j + k].end - runs[j + k].begin) / module;
        match = std::abs(w - p.widths[k]) <= 0.5 + 0.25 * p.widths[k];
      }
      // The outer side is quiet: a space at least two modules wide.
      const Run& outside = p.start != p.reverse ? runs[j - 1] : runs[j + p.count];
      match = match && outside.end - outside.begin >= 1.5 * module;
      if (!match) continue;
      hits.push_back(
          {&p, p.start != p.reverse ? runs[j].begin : runs[j + p.count - 1].end, module});
    }
  }
}

struct EdgeHit {
  cv::Point2d point;
  double module;  // picture pixels
};

// A line through the hits (point and unit direction), refitted without those far from it.
// With few hits (the sparse scan, where a line or two may read a pattern in the card's print
// or a codeword), the line through the pair of hits that most others lie near seeds the fit.
bool fitEdge(std::vector<EdgeHit>& hits, double module, cv::Point2d& origin, cv::Point2d& dir) {
  if (hits.size() < kMinEdgeHits) return false;
  auto near = [&](cv::Point2d o, cv::Point2d d, const EdgeHit& h, double limit) {
    const cv::Point2d q = h.point - o;
    return std::abs(q.x * d.y - q.y * d.x) <= limit;
  };
  if (hits.size() <= 64) {
    size_t best = 0;
    for (size_t i = 0; i < hits.size(); ++i)
      for (size_t j = i + 1; j < hits.size(); ++j) {
        cv::Point2d d = hits[j].point - hits[i].point;
        const double length = cv::norm(d);
        if (length < 2 * module) continue;
        d /= length;
        const size_t count =
            static_cast<size_t>(std::count_if(hits.begin(), hits.end(), [&](const EdgeHit& h) {
              return near(hits[i].point, d, h, 1.5 * module);
            }));
        if (count > best) best = count, origin = hits[i].point, dir = d;
      }
    if (best < kMinEdgeHits) return false;
    std::erase_if(hits, [&](const EdgeHit& h) { return !near(origin, dir, h, 1.5 * module); });
  }
  for (int pass = 0; pass < 3; ++pass) {
    if (hits.size() < kMinEdgeHits) return false;
    std::vector<cv::Point2f> points;
    for (const EdgeHit& h : hits) points.emplace_back(cv::Point2f(h.point));
    cv::Vec4f line;
    cv::fitLine(points, line, cv::DIST_HUBER, 0, 0.01, 0.01);
    dir = {line[0], line[1]};
    origin = {line[2], line[3]};
    const size_t before = hits.size();
    std::erase_if(hits, [&](const EdgeHit& h) {
      return !near(origin, dir, h, (pass == 0 ? 3.0 : 1.5) * module);
    });
    if (hits.size() == before) break;
  }
  return hits.size() >= kMinEdgeHits;
}

// The longest stretch of an edge's hits (positions along the edge, sorted) without a gap
// wider than `gap`.
std::pair<double, double> longestStretch(std::vector<double> t, double gap) {
  std::sort(t.begin(), t.end());
  size_t bestBegin = 0, bestEnd = 0, begin = 0;
  for (size_t i = 1; i <= t.size(); ++i) {
    if (i < t.size() && t[i] - t[i - 1] <= gap) continue;
    if (t[i - 1] - t[begin] > t[bestEnd] - t[bestBegin] || bestEnd == bestBegin)
      bestBegin = begin, bestEnd = i - 1;
    begin = i;
  }
  return {t[bestBegin], t[bestEnd]};
}

// The hit of `wanted` on a short line through `at` along `along` (unit), nearest `at` and
// within three modules of it; `module` (picture pixels) sets the line's reach and threshold
// blocks.
std::optional<EdgeHit> hitNear(const cv::Mat& gray, cv::Point2d at, cv::Point2d along,
                               const Pattern& wanted, double module, std::vector<float>& line,
                               std::vector<Run>& runs, std::vector<Hit>& hits) {
  const double perSample = 1.0 / kSamplesPerPixel;
  const double reach = 24 * module;  // the pattern and a codeword either side
  const int n = std::min(kMaxLineSamples, static_cast<int>(2 * reach / perSample));
  const cv::Point2d from = at - reach * along;
  sampleLine(gray, from, perSample * along, n, line);
  runsOf(line, std::max(8, static_cast<int>(6 * module / perSample)), runs);
  findPatterns(runs, hits);
  const Hit* best = nullptr;
  for (const Hit& h : hits)
    if (h.pattern == &wanted && (!best || std::abs(h.along * perSample - reach) <
                                              std::abs(best->along * perSample - reach)))
      best = &h;
  if (!best || std::abs(best->along * perSample - reach) > 3 * module) return std::nullopt;
  return EdgeHit{from + best->along * perSample * along, best->module * perSample};
}

double medianModule(const std::vector<EdgeHit>& hits) {
  std::vector<double> m;
  for (const EdgeHit& h : hits) m.push_back(h.module);
  std::nth_element(m.begin(), m.begin() + m.size() / 2, m.end());
  return m[m.size() / 2];
}

// The ends of an edge's hits along its line (origin, unit dir): the longest stretch without a
// gap wider than `gap` pixels, widened by half the spacing of the lines that found them.
std::pair<double, double> edgeEnds(const std::vector<EdgeHit>& hits, cv::Point2d origin,
                                   cv::Point2d dir, double spacing, double gap) {
  std::vector<double> t;
  for (const EdgeHit& h : hits) t.push_back((h.point - origin).dot(dir));
  auto [top, bottom] = longestStretch(t, std::max(8 * spacing, gap));
  return {top - 0.5 * spacing, bottom + 0.5 * spacing};
}

}  // namespace

std::optional<Pdf417Outline> outlinePdf417(const cv::Mat& gray, const BarRegion& region,
                                           size_t* patternHits) {
  if (patternHits) *patternHits = 0;
  if (gray.empty() || gray.type() != CV_8UC1 || gray.cols < 2 || gray.rows < 2 ||
      !(region.length > 0) || !(region.height > 0) || !std::isfinite(region.centre.x) ||
      !std::isfinite(region.centre.y) || !std::isfinite(region.angle))
    return std::nullopt;
  try {
    const cv::Point2d u(std::cos(region.angle), std::sin(region.angle)), v(-u.y, u.x);
    // Beyond the region: its cells miss the thin bars of the stop pattern and the rows' ends.
    const double halfA = 0.65 * region.length + 6, halfB = 0.7 * region.height + 6;
    const double perSample = std::max(1.0 / kSamplesPerPixel, 2 * halfA / kMaxLineSamples);
    const int n = static_cast<int>(2 * halfA / perSample);
    std::vector<float> line;
    std::vector<Run> runs;
    std::vector<Hit> hits;

    // Sparse: lines across the whole region, for the edges' rough place and the symbol's way
    // round.
    std::vector<EdgeHit> edge[4];  // by pattern
    const double sparseStep = 2 * halfB / kSparseLines;
    for (int k = 0; k < kSparseLines; ++k) {
      const double b = -halfB + (k + 0.5) * sparseStep;
      const cv::Point2d from = region.centre - halfA * u + b * v;
      sampleLine(gray, from, perSample * u, n, line);
      runsOf(line, std::max(8, n / 24), runs);
      findPatterns(runs, hits);
      for (const Hit& h : hits)
        edge[h.pattern - kPatterns].push_back(
            {from + h.along * perSample * u, h.module * perSample});
    }
    if (patternHits)
      *patternHits = edge[0].size() + edge[1].size() + edge[2].size() + edge[3].size();
    // The symbol's right runs along +u when its patterns read forward.
    const bool forward = edge[0].size() + edge[2].size() >= edge[1].size() + edge[3].size();
    const Pattern* wanted[2] = {&kPatterns[forward ? 0 : 1], &kPatterns[forward ? 2 : 3]};
    std::vector<EdgeHit> found[2] = {std::move(edge[forward ? 0 : 1]),
                                     std::move(edge[forward ? 2 : 3])};
    if (found[0].size() < kMinEdgeHits || found[1].size() < kMinEdgeHits) return std::nullopt;
    double module = 0;
    {
      std::vector<EdgeHit> all = found[0];
      all.insert(all.end(), found[1].begin(), found[1].end());
      module = medianModule(all);
    }
    cv::Point2d origin[2], dir[2];
    for (int side = 0; side < 2; ++side)
      if (!fitEdge(found[side], module, origin[side], dir[side])) return std::nullopt;
    const cv::Point2d down = forward ? v : -v;
    for (cv::Point2d& d : dir)
      if (d.dot(down) < 0) d = -d;
    // No edge may run near the rows' way.
    if (std::abs(dir[0].dot(u)) > 0.8 || std::abs(dir[1].dot(u)) > 0.8) return std::nullopt;

    // Dense, twice: short lines across each edge every pixel (or half module) down it. First
    // along the region's direction, for the edges' lines and ends; then along the rows as
    // those ends show them, since under perspective the rows meet the edges aslant, and lines
    // that cross them aslant run off the symbol a few modules short of its corners.
    const double spacing = std::clamp(0.5 * module, 0.5, 1.0);
    std::array<cv::Point2d, 4> corners;  // top left, top right, bottom right, bottom left
    for (int pass = 0; pass < 2; ++pass) {
      std::vector<EdgeHit> dense[2];
      if (pass == 0) {
        double bMin = 1e18, bMax = -1e18;
        for (const auto& side : found)
          for (const EdgeHit& h : side) {
            const double b = (h.point - region.centre).dot(v);
            bMin = std::min(bMin, b), bMax = std::max(bMax, b);
          }
        bMin -= 1.5 * sparseStep, bMax += 1.5 * sparseStep;
        for (int side = 0; side < 2; ++side) {
          const cv::Point2d d = dir[side];
          const double det = u.y * d.x - u.x * d.y;
          for (double b = bMin; b <= bMax; b += spacing) {
            // Where the line along u through centre + b v meets the edge (origin + t d).
            const cv::Point2d w = origin[side] - region.centre - b * v;
            const double a = (w.y * d.x - w.x * d.y) / det;
            if (auto h = hitNear(gray, region.centre + b * v + a * u, u, *wanted[side], module,
                                 line, runs, hits))
              dense[side].push_back(*h);
          }
        }
      } else {
        const cv::Point2d leftEdge = corners[3] - corners[0], rightEdge = corners[2] - corners[1];
        const double length = std::max(cv::norm(leftEdge), cv::norm(rightEdge));
        if (!(length > 2 * module)) return std::nullopt;
        // Beyond the first ends, by up to a fifth of the edge: a stretch of an edge that the
        // first lines missed (they cross it aslant) is found again along the rows.
        const double reachT = std::max(6 * module / length, 0.2), stepT = spacing / length;
        for (double t = -reachT; t <= 1 + reachT; t += stepT) {
          const cv::Point2d a = corners[0] + t * leftEdge, b = corners[1] + t * rightEdge;
          const cv::Point2d r = (b - a) / std::max(1e-9, cv::norm(b - a));
          // Along the rows from the symbol's left: both patterns read forward.
          for (int side = 0; side < 2; ++side)
            if (auto h = hitNear(gray, side == 0 ? a : b, r, kPatterns[side == 0 ? 0 : 2], module,
                                 line, runs, hits))
              dense[side].push_back(*h);
        }
      }
      // Lines that cross the rows aslant miss the pattern here and there, so the first ends
      // bridge wide gaps; along the rows a gap means the symbol has ended (or is damaged).
      for (int side = 0; side < 2; ++side) {
        if (!fitEdge(dense[side], module, origin[side], dir[side])) return std::nullopt;
        if (dir[side].dot(down) < 0) dir[side] = -dir[side];
        const auto [top, bottom] = edgeEnds(dense[side], origin[side], dir[side], spacing,
                                            (pass == 0 ? 20 : 6) * medianModule(dense[side]));
        corners[side == 0 ? 0 : 1] = origin[side] + top * dir[side];
        corners[side == 0 ? 3 : 2] = origin[side] + bottom * dir[side];
      }
    }

    // A symbol: the top edge runs the symbol's right way, both edges at least a few rows
    // long, and the edges no more than 30 degrees from parallel.
    const cv::Point2d across = corners[1] - corners[0];
    const double width = cv::norm(across);
    const cv::Point2d rightward = forward ? u : -u;
    if (across.dot(rightward) < 0.8 * width || width < 30 * module) return std::nullopt;
    if (cv::norm(corners[3] - corners[0]) < 3 * module ||
        cv::norm(corners[2] - corners[1]) < 3 * module)
      return std::nullopt;
    if (dir[0].dot(dir[1]) < std::cos(30 * std::numbers::pi / 180)) return std::nullopt;
    Pdf417Outline out;
    out.corners = corners;
    out.module = module;
    return out;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace kwq::platform
