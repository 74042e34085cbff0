// Bar texture by the structure tensor: in each small cell of the picture the averaged outer
// product of the gradient says how strong the edges are, which way they point and how well
// they agree. A PDF417 symbol is a block of cells with strong edges that all point along its
// rows (its bars are parallel whatever the symbol's turn); photographs, faces and most print
// give weaker or less coherent cells. Cells that agree in direction are grown into regions,
// and each region's rectangle is measured along and across that direction.

#include "platform/vision/code_locator.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <numbers>

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

cv::Mat cropToPicture(const BarRegion& region, double scale) {
  const double ux = std::cos(region.angle), uy = std::sin(region.angle);
  const double w = std::ceil(region.length * scale), h = std::ceil(region.height * scale);
  // Crop pixel (i, j) lies (i - (w - 1) / 2) / scale along the rows and (j - (h - 1) / 2) /
  // scale along the bars from the centre.
  const double ox = (w - 1) / 2, oy = (h - 1) / 2;
  cv::Mat m(2, 3, CV_64F);
  m.at<double>(0, 0) = ux / scale;
  m.at<double>(0, 1) = -uy / scale;
  m.at<double>(0, 2) = region.centre.x - (ox * ux - oy * uy) / scale;
  m.at<double>(1, 0) = uy / scale;
  m.at<double>(1, 1) = ux / scale;
  m.at<double>(1, 2) = region.centre.y - (ox * uy + oy * ux) / scale;
  return m;
}

}  // namespace kwq::platform
