#include "platform/vision/mrz_reader.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>
#include <numeric>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "kwqimage/Image.h"
#include "platform/draw/cairo_handles.h"
#include "platform/image/image_data.h"
#include "platform/image/opencv_view.h"

namespace kwq::platform {
namespace {

// The zone's printed geometry (ICAO 9303): ten characters to the inch, six lines to the inch,
// capitals about 2.4 mm high.
constexpr double kPitchMm = 2.54;
constexpr double kLineMm = 4.23;
constexpr double kCapMm = 2.4;

// Character cells are matched at 5 samples per millimetre: capitals 12 samples high. A
// template covers 12 x 16 samples about the cell's centre (2 above the capitals, 2 below);
// the sampled patch is one sample wider all round, for the shift search.
constexpr double kSamplesPerMm = 5.0;
constexpr int kTplW = 12, kTplH = 16, kTplAbove = 2;
constexpr int kPatchW = kTplW + 2, kPatchH = kTplH + 2;
constexpr int kShifts = 9;

const char kSymbols[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ<";
constexpr int kClasses = 37;

// ---------------------------------------------------------------------------------------------
// Templates

// One template per symbol, zero mean and unit norm, stored sample by sample with the symbols
// side by side (kClassStride floats a sample), so a window is scored against all 37 at once
// by vector multiply-adds.
constexpr int kClassStride = 40;
constexpr int kTplSize = kTplW * kTplH;

struct Templates {
  bool ok = false;
  std::vector<float> bySample;  // kTplSize x kClassStride
};

cv::Mat normalised(const cv::Mat& m) {
  cv::Mat f;
  m.convertTo(f, CV_32F);
  f = f.reshape(1, 1).clone();
  const cv::Scalar mean = cv::mean(f);
  f -= mean[0];
  const double n = cv::norm(f);
  if (n > 1e-6) f /= n;
  return f;
}

// Draws the symbol as the zone prints it: centred in its 2.54 mm cell by its advance, capitals
// standing on the baseline, at 8 times the matching resolution, then reduced by area.
Templates buildTemplates() {
  Templates t;
  constexpr int kUp = 8;
  const double ppm = kSamplesPerMm * kUp;
  const int w = kTplW * kUp, h = kTplH * kUp;
  std::vector<cv::Mat> plain;
  for (int c = 0; c < kClasses; ++c) {
    cv::Mat bgra(h, w, CV_8UC4, cv::Scalar(255, 255, 255, 255));
    CairoSurface surface(cairo_image_surface_create_for_data(bgra.data, CAIRO_FORMAT_ARGB32, w, h,
                                                             static_cast<int>(bgra.step)));
    CairoContext cr(cairo_create(surface.get()));
    if (cairo_status(cr.get()) != CAIRO_STATUS_SUCCESS) return t;
    PangoLayoutHandle layout(pango_cairo_create_layout(cr.get()));
    PangoContext* context = pango_layout_get_context(layout.get());
    cairo_font_options_t* options = cairo_font_options_create();
    cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
    cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_NONE);
    cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_OFF);
    pango_cairo_context_set_font_options(context, options);
    cairo_font_options_destroy(options);
    pango_context_set_round_glyph_positions(context, FALSE);
    pango_layout_context_changed(layout.get());
    PangoFont font(pango_font_description_new());
    pango_font_description_set_family(font.get(), "OCR B");
    pango_font_description_set_absolute_size(font.get(), 100.0 * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), font.get());
    // The font must be OCR-B itself: fontconfig would quietly stand another in for it.
    if (c == 0) {
      ::PangoFont* loaded = pango_context_load_font(context, font.get());
      if (!loaded) return t;
      PangoFontDescription* d = pango_font_describe(loaded);
      const std::string family = d ? pango_font_description_get_family(d) : "";
      if (d) pango_font_description_free(d);
      g_object_unref(loaded);
      if (family != "OCR B") return t;
    }
    pango_layout_set_text(layout.get(), "H", -1);
    PangoRectangle ink, logical;
    pango_layout_get_extents(layout.get(), &ink, &logical);
    const double capAt100 = static_cast<double>(ink.height) / PANGO_SCALE;
    if (capAt100 < 10.0) return t;
    const double em = 100.0 * (kCapMm * ppm) / capAt100;
    pango_font_description_set_absolute_size(font.get(), em * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), font.get());
    const char text[2] = {kSymbols[c], 0};
    pango_layout_set_text(layout.get(), text, 1);
    pango_layout_get_extents(layout.get(), nullptr, &logical);
    const double advance = static_cast<double>(logical.width) / PANGO_SCALE;
    const double baseline =
        static_cast<double>(pango_layout_get_baseline(layout.get())) / PANGO_SCALE;
    cairo_set_source_rgb(cr.get(), 0.0, 0.0, 0.0);
    cairo_move_to(cr.get(), w / 2.0 - advance / 2.0, (kTplAbove * kUp + kCapMm * ppm) - baseline);
    pango_cairo_show_layout(cr.get(), layout.get());
    cairo_surface_flush(surface.get());
    cv::Mat gray, small;
    cv::cvtColor(bgra, gray, cv::COLOR_BGRA2GRAY);
    cv::resize(gray, small, cv::Size(kTplW, kTplH), 0, 0, cv::INTER_AREA);
    small.convertTo(small, CV_32F);
    plain.push_back(small);
  }
  // Slightly soft, as cameras see print: measured to match both sharp and blurred cells
  // better than the sharp glyph does.
  t.bySample.assign(static_cast<size_t>(kTplSize) * kClassStride, 0.0f);
  for (int c = 0; c < kClasses; ++c) {
    cv::Mat v = plain[c].clone();
    cv::GaussianBlur(v, v, cv::Size(), 0.5, 0.5, cv::BORDER_REPLICATE);
    const cv::Mat row = normalised(v);
    for (int i = 0; i < kTplSize; ++i)
      t.bySample[static_cast<size_t>(i) * kClassStride + c] = row.at<float>(0, i);
  }
  t.ok = true;
  return t;
}

const Templates& templates() {
  static const Templates t = [] {
    try {
      return buildTemplates();
    } catch (...) {
      return Templates{};
    }
  }();
  return t;
}

// ---------------------------------------------------------------------------------------------
// Finding the lines

struct Blob {
  cv::Point2f c;
  float size;  // the larger side of its box
};

struct Chain {
  std::vector<int> blobs;
  std::vector<int> index;  // each blob's character position, 0 at the first
  cv::Point2f u;           // along the line
  float pitch = 0;
  cv::Point2f origin;  // where position 0 stands
  int count() const { return index.empty() ? 0 : index.back() + 1; }
};

struct Grid {
  int cell, cols, rows;
  std::vector<std::vector<int>> at;
  Grid(int w, int h, int cell_) : cell(cell_), cols(w / cell_ + 1), rows(h / cell_ + 1) {
    at.resize(static_cast<size_t>(cols) * rows);
  }
  void add(int i, cv::Point2f p) {
    const int x = std::clamp(static_cast<int>(p.x) / cell, 0, cols - 1);
    const int y = std::clamp(static_cast<int>(p.y) / cell, 0, rows - 1);
    at[static_cast<size_t>(y) * cols + x].push_back(i);
  }
  template <typename F>
  void near(cv::Point2f p, float r, F&& f) const {
    const int x0 = std::max(0, static_cast<int>((p.x - r) / cell));
    const int x1 = std::min(cols - 1, static_cast<int>((p.x + r) / cell));
    const int y0 = std::max(0, static_cast<int>((p.y - r) / cell));
    const int y1 = std::min(rows - 1, static_cast<int>((p.y + r) / cell));
    for (int y = y0; y <= y1; ++y)
      for (int x = x0; x <= x1; ++x)
        for (int i : at[static_cast<size_t>(y) * cols + x]) f(i);
  }
};

float dist(cv::Point2f a, cv::Point2f b) {
  return std::hypot(a.x - b.x, a.y - b.y);
}

// Least-squares line through the members: direction, pitch and where position 0 lies.
void fitChain(const std::vector<Blob>& blobs, Chain& ch) {
  const size_t n = ch.blobs.size();
  double sk = 0, skk = 0, sx = 0, sy = 0, skx = 0, sky = 0;
  for (size_t i = 0; i < n; ++i) {
    const double k = ch.index[i];
    const cv::Point2f p = blobs[ch.blobs[i]].c;
    sk += k;
    skk += k * k;
    sx += p.x;
    sy += p.y;
    skx += k * p.x;
    sky += k * p.y;
  }
  const double d = n * skk - sk * sk;
  if (std::abs(d) < 1e-9) return;
  const double vx = (n * skx - sk * sx) / d, vy = (n * sky - sk * sy) / d;
  const double ox = (sx - vx * sk) / n, oy = (sy - vy * sk) / n;
  ch.pitch = static_cast<float>(std::hypot(vx, vy));
  if (ch.pitch > 0) ch.u = {static_cast<float>(vx / ch.pitch), static_cast<float>(vy / ch.pitch)};
  ch.origin = {static_cast<float>(ox), static_cast<float>(oy)};
}

// Walks from blob `a` through `b` and on in both directions, a character pitch at a time,
// allowing two missing characters in a row (glare, a merged pair).
Chain grow(const std::vector<Blob>& blobs, const Grid& grid, const std::vector<char>& used, int a,
           int b) {
  struct Member {
    int blob, k;
  };
  std::vector<Member> members = {{a, 0}, {b, 1}};
  const float d0 = dist(blobs[a].c, blobs[b].c);
  for (int dir : {1, -1}) {
    cv::Point2f u = (blobs[b].c - blobs[a].c) * (dir / d0);
    float pitch = d0;
    int last = dir > 0 ? b : a, kLast = dir > 0 ? 1 : 0, misses = 0;
    const float sizeRef = (blobs[a].size + blobs[b].size) / 2;
    while (members.size() < 60) {
      const cv::Point2f want = blobs[last].c + u * (pitch * (misses + 1));
      int best = -1;
      float bestD = 0.3f * pitch;
      grid.near(want, bestD, [&](int i) {
        if (used[i] || i == last) return;
        if (blobs[i].size > 2.2f * sizeRef || blobs[i].size < sizeRef / 2.8f) return;
        const float e = dist(blobs[i].c, want);
        if (e < bestD) {
          bestD = e;
          best = i;
        }
      });
      if (best < 0) {
        if (++misses > 2) break;
        continue;
      }
      const cv::Point2f step = blobs[best].c - blobs[last].c;
      const float len = std::hypot(step.x, step.y);
      const float per = len / (misses + 1);
      pitch = 0.8f * pitch + 0.2f * per;
      u = u * 0.7f + step * (0.3f / len);
      u /= std::hypot(u.x, u.y);
      kLast += dir * (misses + 1);
      members.push_back({best, kLast});
      last = best;
      misses = 0;
    }
  }
  std::sort(members.begin(), members.end(),
            [](const Member& x, const Member& y) { return x.k < y.k; });
  Chain ch;
  const int k0 = members.front().k;
  for (const Member& m : members) {
    if (!ch.index.empty() && m.k - k0 == ch.index.back()) continue;  // the same place twice
    ch.blobs.push_back(m.blob);
    ch.index.push_back(m.k - k0);
  }
  fitChain(blobs, ch);
  return ch;
}

std::vector<Blob> findBlobs(const cv::Mat& work) {
  cv::Mat bin;
  cv::adaptiveThreshold(work, bin, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY_INV, 15, 12);
  cv::Mat labels, stats, centroids;
  const int n = cv::connectedComponentsWithStats(bin, labels, stats, centroids, 8, CV_32S);
  std::vector<Blob> blobs;
  blobs.reserve(static_cast<size_t>(n));
  for (int i = 1; i < n; ++i) {
    const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
    const int area = stats.at<int>(i, cv::CC_STAT_AREA);
    const int big = std::max(w, h), small = std::min(w, h);
    if (big < 3 || big > 48 || area < 3 || big > 8 * std::max(1, small)) continue;
    blobs.push_back({{static_cast<float>(centroids.at<double>(i, 0)),
                      static_cast<float>(centroids.at<double>(i, 1))},
                     static_cast<float>(big)});
  }
  return blobs;
}

std::vector<Chain> findChains(const std::vector<Blob>& blobs, int w, int h) {
  Grid grid(w, h, 16);
  for (size_t i = 0; i < blobs.size(); ++i) grid.add(static_cast<int>(i), blobs[i].c);
  std::vector<char> used(blobs.size(), 0);
  std::vector<Chain> chains;
  for (size_t a = 0; a < blobs.size(); ++a) {
    if (used[a]) continue;
    const float s = blobs[a].size;
    // The nearest like-sized neighbour a character pitch away or so starts a chain.
    std::vector<std::pair<float, int>> next;
    grid.near(blobs[a].c, 2.5f * s, [&](int b) {
      if (b == static_cast<int>(a) || used[b]) return;
      const float d = dist(blobs[a].c, blobs[b].c);
      const float m = std::max(s, blobs[b].size);
      if (d < 0.5f * m || d > 2.5f * m || blobs[b].size > 2.5f * s || s > 2.5f * blobs[b].size)
        return;
      next.push_back({d, b});
    });
    std::sort(next.begin(), next.end());
    for (size_t j = 0; j < next.size() && j < 3; ++j) {
      Chain ch = grow(blobs, grid, used, static_cast<int>(a), next[j].second);
      if (ch.count() >= 20 && ch.blobs.size() >= 16) {
        for (int i : ch.blobs) used[i] = 1;
        chains.push_back(std::move(ch));
        break;
      }
    }
  }
  return chains;
}

struct Block {
  std::vector<Chain> lines;  // in reading order for direction u
  int characters = 0;
  std::vector<int> offset;  // each line's first member's position in the block
};

// Blocks of 2 lines of 36 or 44 or 3 lines of 30: parallel chains of one pitch, about 1.67
// pitches apart, starting together.
std::vector<Block> findBlocks(std::vector<Chain> chains) {
  std::vector<Block> blocks;
  std::vector<char> taken(chains.size(), 0);
  for (size_t i = 0; i < chains.size(); ++i) {
    if (taken[i]) continue;
    const Chain& a = chains[i];
    const cv::Point2f n(-a.u.y, a.u.x);
    std::vector<std::pair<float, size_t>> group = {{0.0f, i}};
    for (size_t j = 0; j < chains.size(); ++j) {
      if (j == i || taken[j]) continue;
      Chain& b = chains[j];
      const float dot = a.u.dot(b.u);
      if (std::abs(dot) < 0.985f) continue;
      if (b.pitch < 0.88f * a.pitch || b.pitch > 1.12f * a.pitch) continue;
      if (dot < 0) {
        // Same line direction for every member: renumber from the other end.
        const int last = b.count() - 1;
        for (int& k : b.index) k = last - k;
        std::reverse(b.index.begin(), b.index.end());
        std::reverse(b.blobs.begin(), b.blobs.end());
        b.origin = b.origin + b.u * (b.pitch * last);
        b.u = -b.u;
      }
      const float across = n.dot(b.origin - a.origin);
      const float along = a.u.dot(b.origin - a.origin);
      if (std::abs(across) > 3.6f * a.pitch || std::abs(along) > 2.5f * a.pitch) continue;
      group.push_back({across, j});
    }
    if (group.size() < 2) continue;
    std::sort(group.begin(), group.end());
    // Consecutive lines 1.67 pitches apart; take the longest run of such lines.
    std::vector<size_t> run = {group[0].second}, best;
    for (size_t g = 1; g <= group.size(); ++g) {
      const bool fits = g < group.size() && group[g].first - group[g - 1].first > 1.35f * a.pitch &&
                        group[g].first - group[g - 1].first < 2.0f * a.pitch;
      if (fits) {
        run.push_back(group[g].second);
      } else {
        if (run.size() > best.size()) best = run;
        if (g < group.size()) run = {group[g].second};
      }
    }
    if (best.size() < 2 || best.size() > 3) continue;
    Block block;
    for (size_t idx : best) block.lines.push_back(chains[idx]);
    // Line starts along the first line's direction, in pitches from the earliest.
    const Chain& ref = block.lines.front();
    float first = 1e9f;
    std::vector<float> starts;
    for (const Chain& l : block.lines) {
      starts.push_back(ref.u.dot(l.origin - ref.origin) / ref.pitch);
      first = std::min(first, starts.back());
    }
    int characters = 0;
    for (size_t l = 0; l < block.lines.size(); ++l) {
      block.offset.push_back(static_cast<int>(std::lround(starts[l] - first)));
      characters = std::max(characters, block.offset.back() + block.lines[l].count());
    }
    block.characters = characters;
    const bool shape = (block.lines.size() == 3 && characters == 30) ||
                       (block.lines.size() == 2 && (characters == 36 || characters == 44));
    if (!shape) continue;
    for (size_t idx : best) taken[idx] = 1;
    blocks.push_back(std::move(block));
  }
  return blocks;
}

// ---------------------------------------------------------------------------------------------
// Reading the cells

struct Geometry {
  cv::Matx33d toImage;  // printed millimetres (x along the line from the first cell's left edge,
                        // y down from the first line's cap top) to image pixels
  int lines = 0, characters = 0;
};

// The homography from the printed layout to the picture, from every found character's centre
// (a capital's centre stands 1.2 mm below its cap top). `reversed`: the block read from the
// other end (a document upside down).
std::optional<Geometry> blockGeometry(const std::vector<Blob>& blobs, const Block& b, double scale,
                                      bool reversed) {
  std::vector<cv::Point2f> printed, seen;
  const int nl = static_cast<int>(b.lines.size());
  for (int l = 0; l < nl; ++l) {
    const Chain& ch = b.lines[l];
    for (size_t i = 0; i < ch.blobs.size(); ++i) {
      int k = b.offset[l] + ch.index[i];
      int line = l;
      if (reversed) {
        k = b.characters - 1 - k;
        line = nl - 1 - l;
      }
      printed.push_back({static_cast<float>((k + 0.5) * kPitchMm),
                         static_cast<float>(line * kLineMm + kCapMm / 2)});
      seen.push_back(blobs[ch.blobs[i]].c * static_cast<float>(scale));
    }
  }
  if (printed.size() < 8) return std::nullopt;
  const double pitchPx = b.lines.front().pitch * scale;
  cv::Mat H = cv::findHomography(printed, seen, cv::RANSAC, 0.3 * pitchPx);
  if (H.empty()) return std::nullopt;
  Geometry g;
  g.toImage = cv::Matx33d(H);
  g.lines = nl;
  g.characters = b.characters;
  return g;
}

cv::Point2d apply(const cv::Matx33d& H, double x, double y) {
  const cv::Vec3d v = H * cv::Vec3d(x, y, 1.0);
  return {v[0] / v[2], v[1] / v[2]};
}

float sample(const cv::Mat& gray, double x, double y) {
  const int x0 = static_cast<int>(std::floor(x)), y0 = static_cast<int>(std::floor(y));
  const float fx = static_cast<float>(x - x0), fy = static_cast<float>(y - y0);
  const uint8_t* r0 = gray.ptr<uint8_t>(y0);
  const uint8_t* r1 = gray.ptr<uint8_t>(y0 + 1);
  return (1 - fy) * ((1 - fx) * r0[x0] + fx * r0[x0 + 1]) +
         fy * ((1 - fx) * r1[x0] + fx * r1[x0 + 1]);
}

// The patch of cell (line, k) at the matching resolution; false when it leaves the picture.
// Over one cell the homography is as good as affine: three corners give the steps.
bool cellPatch(const cv::Mat& gray, const Geometry& g, int line, int k, float* out) {
  const double step = 1.0 / kSamplesPerMm;
  const double x0 = (k + 0.5) * kPitchMm - (kPatchW / 2.0) * step;
  const double y0 = line * kLineMm - (kTplAbove + 1) * step;
  const cv::Point2d o = apply(g.toImage, x0, y0);
  const cv::Point2d ex = (apply(g.toImage, x0 + kPatchW * step, y0) - o) / kPatchW;
  const cv::Point2d ey = (apply(g.toImage, x0, y0 + kPatchH * step) - o) / kPatchH;
  // Fine print seen large: each sample averages four.
  const int sub = std::hypot(ex.x, ex.y) > 1.5 ? 2 : 1;
  for (const cv::Point2d& c :
       {o, o + ex * kPatchW, o + ey * kPatchH, o + ex * kPatchW + ey * kPatchH})
    if (!(c.x >= 0 && c.y >= 0 && c.x < gray.cols - 1 && c.y < gray.rows - 1)) return false;
  for (int j = 0; j < kPatchH; ++j)
    for (int i = 0; i < kPatchW; ++i) {
      float sum = 0;
      for (int sj = 0; sj < sub; ++sj)
        for (int si = 0; si < sub; ++si) {
          const cv::Point2d p = o + ex * (i + (si + 0.5) / sub) + ey * (j + (sj + 0.5) / sub);
          sum += sample(gray, p.x, p.y);
        }
      out[j * kPatchW + i] = sum / static_cast<float>(sub * sub);
    }
  return true;
}

struct CellRead {
  int best = 0, second = 0;
  float score = -1, secondScore = -1;
  std::array<float, kClasses> all{};
};

// Matches cells against every template at the 9 one-sample shifts.
std::vector<CellRead> classify(const std::vector<std::vector<float>>& patches) {
  const Templates& t = templates();
  std::vector<CellRead> out(patches.size());
  float w[kTplSize];
  for (size_t c = 0; c < patches.size(); ++c) {
    float perClass[kClassStride];
    std::fill(perClass, perClass + kClassStride, -2.0f);
    for (int s = 0; s < kShifts; ++s) {
      const int dx = s % 3, dy = s / 3;
      double mean = 0;
      for (int y = 0; y < kTplH; ++y)
        for (int x = 0; x < kTplW; ++x) {
          w[y * kTplW + x] = patches[c][(y + dy) * kPatchW + x + dx];
          mean += w[y * kTplW + x];
        }
      mean /= kTplSize;
      double norm = 0;
      for (float& v : w) {
        v -= static_cast<float>(mean);
        norm += static_cast<double>(v) * v;
      }
      if (norm < 1e-6) continue;  // a flat window matches nothing
      const float inv = static_cast<float>(1.0 / std::sqrt(norm));
      float score[kClassStride] = {};
      const float* tp = t.bySample.data();
      for (int i = 0; i < kTplSize; ++i, tp += kClassStride) {
        const float v = w[i];
        for (int k = 0; k < kClassStride; ++k) score[k] += v * tp[k];
      }
      for (int k = 0; k < kClasses; ++k) perClass[k] = std::max(perClass[k], score[k] * inv);
    }
    CellRead& r = out[c];
    std::copy(perClass, perClass + kClasses, r.all.begin());
    for (int k = 0; k < kClasses; ++k) {
      if (perClass[k] > r.score) {
        r.second = r.best;
        r.secondScore = r.score;
        r.best = k;
        r.score = perClass[k];
      } else if (perClass[k] > r.secondScore) {
        r.second = k;
        r.secondScore = perClass[k];
      }
    }
  }
  return out;
}

bool confusable(char a, char b) {
  static const char* const kPairs[] = {"0O", "0D", "0Q", "1I", "2Z", "5S", "6G", "8B", "7T", "4A"};
  for (const char* p : kPairs)
    if ((a == p[0] && b == p[1]) || (a == p[1] && b == p[0])) return true;
  return false;
}

std::optional<MRZLinesRead> readBlock(const cv::Mat& gray, const std::vector<Blob>& blobs,
                                      const Block& block, double scale) {
  // Which way up: the reading whose sample of cells agrees better with the templates.
  std::optional<Geometry> best;
  double bestMean = -2;
  for (bool reversed : {false, true}) {
    const auto g = blockGeometry(blobs, block, scale, reversed);
    if (!g) continue;
    std::vector<std::vector<float>> patches;
    for (int l = 0; l < g->lines; ++l)
      for (int k = 1; k < g->characters; k += 6) {
        std::vector<float> p(kPatchW * kPatchH);
        if (cellPatch(gray, *g, l, k, p.data())) patches.push_back(std::move(p));
      }
    if (patches.empty()) continue;
    double mean = 0;
    for (const CellRead& r : classify(patches)) mean += r.score;
    mean /= static_cast<double>(patches.size());
    if (mean > bestMean) {
      bestMean = mean;
      best = g;
    }
  }
  if (!best) return std::nullopt;
  const Geometry& g = *best;
  std::vector<std::vector<float>> patches;
  for (int l = 0; l < g.lines; ++l)
    for (int k = 0; k < g.characters; ++k) {
      std::vector<float> p(kPatchW * kPatchH);
      if (!cellPatch(gray, g, l, k, p.data())) return std::nullopt;  // cut by the picture's edge
      patches.push_back(std::move(p));
    }
  const std::vector<CellRead> reads = classify(patches);
  MRZLinesRead out;
  double sum = 0;
  for (int l = 0; l < g.lines; ++l) {
    std::string line;
    for (int k = 0; k < g.characters; ++k) {
      const CellRead& r = reads[static_cast<size_t>(l * g.characters + k)];
      line += kSymbols[r.best];
      sum += r.score;
      out.margins.push_back(r.score - r.secondScore);
      out.scores.push_back(r.score);
      out.symbolScores.insert(out.symbolScores.end(), r.all.begin(), r.all.end());
      if (confusable(kSymbols[r.best], kSymbols[r.second]) && r.score - r.secondScore < 0.06f)
        out.uncertain.push_back({l, k});
    }
    out.lines.push_back(std::move(line));
  }
  out.meanScore = sum / static_cast<double>(reads.size());
  const double w = g.characters * kPitchMm, h = (g.lines - 1) * kLineMm + kCapMm;
  const cv::Point2d c[4] = {apply(g.toImage, 0, 0), apply(g.toImage, w, 0), apply(g.toImage, w, h),
                            apply(g.toImage, 0, h)};
  for (int i = 0; i < 4; ++i) out.corners[static_cast<size_t>(i)] = {c[i].x, c[i].y};
  out.characterHeight = (std::hypot(c[3].x - c[0].x, c[3].y - c[0].y) +
                         std::hypot(c[2].x - c[1].x, c[2].y - c[1].y)) /
                        2.0 * kCapMm / h;
  return out;
}

// The picture reduced so that characters of 8 to 40 pixels come out 4 to 20 for the search.
int searchScale(size_t width) {
  return width > 2400 ? 3 : width > 960 ? 2 : 1;
}

cv::Mat workImage(const cv::Mat& gray, int f) {
  if (f == 1) return gray;
  cv::Mat work;
  cv::resize(gray, work, cv::Size(gray.cols / f, gray.rows / f), 0, 0, cv::INTER_AREA);
  return work;
}

bool viewable(const uint8_t* gray, size_t width, size_t height, size_t bytesPerRow) {
  return gray && width >= 16 && height >= 16 && width <= 16384 && height <= 16384 &&
         bytesPerRow >= width;
}

// The least margin by which a character no check digit guards must win among the symbols its
// field allows: misread characters on stills of 8 to 20 pixel capitals won by under 0.015,
// in live frames (motion, dim light) an O read for a Q by a little more.
constexpr float kClearMargin = 0.02f;
// The least agreement of any character with its symbol: right characters on those stills
// agreed by 0.7 or more, cells half under a highlight (which read as anything) by much less.
constexpr float kLeastScore = 0.62f;

// Symbols that differ by one small stroke (a tail, a closed bowl, a bar): in live frames one
// was read for the other by margins up to about 0.04, so between them the margin is larger.
constexpr float kLookAlikeMargin = 0.04f;

bool lookAlike(char a, char b) {
  static const char* const kPairs[] = {"OQ", "FP", "EF", "OD", "CG", "0O", "0D", "0Q", "1I",
                                       "8B", "5S", "2Z", "6G", "BE", "HN", "MN", "UV", "KX"};
  for (const char* p : kPairs)
    if ((a == p[0] && b == p[1]) || (a == p[1] && b == p[0])) return true;
  return false;
}

float marginFor(int chosen, int rival) {
  return lookAlike(kSymbols[chosen], kSymbols[rival]) ? kLookAlikeMargin : kClearMargin;
}

int symbolIndex(char c) {
  const char* p = std::find(kSymbols, kSymbols + kClasses, c);
  return p == kSymbols + kClasses ? -1 : static_cast<int>(p - kSymbols);
}

}  // namespace

bool unguardedCharactersClear(const MRZLinesRead& read, const MRZRecord& record) {
  enum Allowed { Letters, Sex, Any };
  struct Span {
    int line, start, length;
    Allowed allowed;
  };
  std::vector<Span> spans;
  switch (record.format) {
    case MRZFormat::TD1:
      spans = {{0, 0, 5, Letters}, {1, 7, 1, Sex}, {1, 15, 3, Letters}, {2, 0, 30, Letters}};
      break;
    case MRZFormat::TD2:
    case MRZFormat::TD3:
    case MRZFormat::MRVA:
    case MRZFormat::MRVB: {
      const int width = static_cast<int>(record.lines.empty() ? 0 : record.lines[0].size());
      spans = {{0, 0, width, Letters}, {1, 10, 3, Letters}, {1, 20, 1, Sex}};
      if (record.format == MRZFormat::MRVA || record.format == MRZFormat::MRVB)
        spans.push_back({1, 28, width - 28, Any});
      break;
    }
    case MRZFormat::Unknown:
      return false;
  }
  const size_t width = record.lines.empty() ? 0 : record.lines[0].size();
  if (read.lines.size() != record.lines.size() ||
      read.symbolScores.size() != record.lines.size() * width * kClasses)
    return false;
  if (std::any_of(read.scores.begin(), read.scores.end(), [](float s) { return s < kLeastScore; }))
    return false;
  std::vector<char> unguarded(record.lines.size() * width, 0);
  for (const Span& s : spans)
    for (int i = s.start; i < s.start + s.length; ++i) {
      unguarded[static_cast<size_t>(s.line) * width + i] = 1;
      const int chosen =
          symbolIndex(record.lines[static_cast<size_t>(s.line)][static_cast<size_t>(i)]);
      if (chosen < 0) return false;
      const float* all = &read.symbolScores[(static_cast<size_t>(s.line) * width + i) * kClasses];
      for (int k = 0; k < kClasses; ++k) {
        if (k == chosen) continue;
        const char c = kSymbols[k];
        const bool allowed = s.allowed == Any ||
                             (s.allowed == Letters && (c == '<' || (c >= 'A' && c <= 'Z'))) ||
                             (s.allowed == Sex && (c == 'M' || c == 'F' || c == '<' || c == 'X'));
        if (allowed && all[chosen] - all[k] < marginFor(chosen, k)) return false;
      }
    }
  // Check digits cannot see a symbol put for one whose value differs by a multiple of ten
  // (F for P, O for E, Q for G, 0 for A): such rivals must be beaten clearly everywhere.
  for (size_t line = 0; line < record.lines.size(); ++line)
    for (size_t i = 0; i < width; ++i) {
      if (unguarded[line * width + i]) continue;
      const int chosen = symbolIndex(record.lines[line][i]);
      if (chosen < 0) return false;
      const float* all = &read.symbolScores[(line * width + i) * kClasses];
      const int value = chosen == kClasses - 1 ? 0 : chosen;  // '<' counts 0, like '0'
      for (int k = 0; k < kClasses; ++k) {
        const int v = k == kClasses - 1 ? 0 : k;
        if (k != chosen && (v - value) % 10 == 0 && all[chosen] - all[k] < marginFor(chosen, k))
          return false;
      }
    }
  return true;
}

bool mrzRecogniserReady() {
  return templates().ok;
}

std::vector<MRZBand> findMRZBands(const uint8_t* data, size_t width, size_t height,
                                  size_t bytesPerRow) {
  std::vector<MRZBand> out;
  if (!viewable(data, width, height, bytesPerRow)) return out;
  try {
    const cv::Mat gray(static_cast<int>(height), static_cast<int>(width), CV_8UC1,
                       const_cast<uint8_t*>(data), bytesPerRow);
    const int f = searchScale(width);
    const cv::Mat work = workImage(gray, f);
    const std::vector<Blob> blobs = findBlobs(work);
    for (const Block& b : findBlocks(findChains(blobs, work.cols, work.rows))) {
      const auto g = blockGeometry(blobs, b, f, false);
      if (!g) continue;
      MRZBand band;
      band.lines = g->lines;
      band.characters = g->characters;
      const double w = g->characters * kPitchMm, h = (g->lines - 1) * kLineMm + kCapMm;
      const cv::Point2d c[4] = {apply(g->toImage, 0, 0), apply(g->toImage, w, 0),
                                apply(g->toImage, w, h), apply(g->toImage, 0, h)};
      for (int i = 0; i < 4; ++i) band.corners[static_cast<size_t>(i)] = {c[i].x, c[i].y};
      out.push_back(band);
    }
  } catch (...) {
    out.clear();
  }
  return out;
}

std::optional<MRZLinesRead> readMRZLines(const uint8_t* data, size_t width, size_t height,
                                         size_t bytesPerRow) {
  if (!viewable(data, width, height, bytesPerRow) || !templates().ok) return std::nullopt;
  try {
    const cv::Mat gray(static_cast<int>(height), static_cast<int>(width), CV_8UC1,
                       const_cast<uint8_t*>(data), bytesPerRow);
    std::optional<MRZLinesRead> best;
    for (int f = searchScale(width); f >= 1; --f) {
      const cv::Mat work = workImage(gray, f);
      const std::vector<Blob> blobs = findBlobs(work);
      const std::vector<Chain> chains = findChains(blobs, work.cols, work.rows);
      for (const Block& b : findBlocks(chains)) {
        auto r = readBlock(gray, blobs, b, f);
        if (r && (!best || r->meanScore > best->meanScore)) best = std::move(r);
      }
      // Small print seen from afar breaks up in the reduced picture: its lines show only as
      // pieces of chains with a short pitch. Then, and only then, the full picture is searched.
      const bool smallPrint =
          std::any_of(chains.begin(), chains.end(), [](const Chain& c) { return c.pitch < 6.5f; });
      if (best || !smallPrint) break;
    }
    return best;
  } catch (...) {
    return std::nullopt;
  }
}

std::optional<LiveMRZ> readMRZ(const SampleBuffer& frame) {
  const PixelBuffer& buffer = frame.imageBuffer();
  const uint32_t format = buffer.pixelFormat();
  const bool biPlanar = format == kPixelFormat420f || format == kPixelFormat420v;
  if (!biPlanar && format != kPixelFormatBGRA) return std::nullopt;
  const size_t width = buffer.widthOfPlane(0), height = buffer.heightOfPlane(0);
  const size_t bytesPerRow = buffer.bytesPerRowOfPlane(0);
  const size_t pixelBytes = biPlanar ? 1 : 4;
  if (width < 16 || height < 16 || width > 16384 || height > 16384 ||
      bytesPerRow / pixelBytes < width)
    return std::nullopt;
  if (!buffer.lockBaseAddress(kPixelBufferLockReadOnly)) return std::nullopt;
  std::optional<MRZLinesRead> lines;
  try {
    if (const uint8_t* base = buffer.baseAddressOfPlane(0)) {
      if (biPlanar) {
        lines = readMRZLines(base, width, height, bytesPerRow);
      } else {
        const cv::Mat bgra(static_cast<int>(height), static_cast<int>(width), CV_8UC4,
                           const_cast<uint8_t*>(base), bytesPerRow);
        cv::Mat gray;
        cv::cvtColor(bgra, gray, cv::COLOR_BGRA2GRAY);
        lines = readMRZLines(gray.data, width, height, gray.step[0]);
      }
    }
  } catch (...) {
    lines.reset();
  }
  buffer.unlockBaseAddress(kPixelBufferLockReadOnly);
  if (!lines) return std::nullopt;
  std::string text;
  for (const std::string& l : lines->lines) text += (text.empty() ? "" : "\n") + l;
  const MRZParseResult parsed = parseMRZ(text, std::nullopt, lines->uncertain);
  LiveMRZ out;
  out.valid =
      parsed.record && parsed.record->valid && unguardedCharactersClear(*lines, *parsed.record);
  if (parsed.record) {
    text.clear();
    for (const std::string& l : parsed.record->lines) text += (text.empty() ? "" : "\n") + l;
  }
  auto code = std::make_shared<MetadataMachineReadableCodeObject>();
  code->type = KWQMetadataObjectTypeMRZ;
  code->stringValue = text;
  const double w = static_cast<double>(width), h = static_cast<double>(height);
  double minX = 1, minY = 1, maxX = 0, maxY = 0;
  for (size_t i : {3, 2, 1, 0}) {
    const Point n{std::clamp(lines->corners[i].x / w, 0.0, 1.0),
                  std::clamp(lines->corners[i].y / h, 0.0, 1.0)};
    code->corners.push_back(n);
    minX = std::min(minX, n.x);
    minY = std::min(minY, n.y);
    maxX = std::max(maxX, n.x);
    maxY = std::max(maxY, n.y);
  }
  code->bounds = Rect(minX, minY, maxX - minX, maxY - minY);
  code->time = frame.presentationTimeStamp();
  code->duration = frame.duration();
  out.object = std::move(code);
  return out;
}

}  // namespace kwq::platform

namespace kwq {

std::optional<MRZReading> readMRZ(const Image& image) {
  const Bitmap* bitmap = ImageAccess::bitmap(image);
  if (!bitmap || bitmap->width == 0 || bitmap->height == 0) return std::nullopt;
  try {
    cv::Mat gray;
    platform::convertLayout(platform::matView(*bitmap), bitmap->layout, gray, PixelLayout::Gray8);
    const auto lines = platform::readMRZLines(gray.data, static_cast<size_t>(gray.cols),
                                              static_cast<size_t>(gray.rows), gray.step[0]);
    if (!lines) return std::nullopt;
    std::string text;
    for (const std::string& l : lines->lines) text += l + "\n";
    MRZParseResult parsed = parseMRZ(text, std::nullopt, lines->uncertain);
    if (!parsed.record) return std::nullopt;
    MRZReading out;
    out.record = std::move(*parsed.record);
    out.record.valid = out.record.valid && platform::unguardedCharactersClear(*lines, out.record);
    for (size_t i = 0; i < 4; ++i) out.corners[i] = lines->corners[i];
    out.characterHeight = lines->characterHeight;
    return out;
  } catch (...) {
    return std::nullopt;
  }
}

}  // namespace kwq
