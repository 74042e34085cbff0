#include "synthetic/renderer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/imgproc.hpp>

#include "synthetic/background.h"
#include "synthetic/motion.h"
#include "synthetic/portrait.h"
#include "synthetic/printed.h"

namespace kwq::synthetic {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kMaxBlurSigma = 50.0;
constexpr double kMaxLightGain = 64.0;
// The exposure drifts with a period of 7.5 s, a whole fraction of the motion's period.
constexpr uint64_t kDriftPeriodFrames = 225;
// Dim light comes and goes in whole seconds.
constexpr uint64_t kDimSpanFrames = 30;
// Sensor noise comes from one table of Gaussian samples read at a per-row offset that is
// hashed from the frame index: cheap, and deterministic per frame without any shared state.
constexpr size_t kNoiseTableSize = size_t{1} << 20;

bool drawableSize(size_t w, size_t h) {
  return w >= 1 && h >= 1 && w <= SceneRenderer::kMaxSide && h <= SceneRenderer::kMaxSide &&
         w * h <= SceneRenderer::kMaxPixels;
}

double finiteOr(double v, double fallback) {
  return std::isfinite(v) ? v : fallback;
}

using Quad = std::array<cv::Point2d, 4>;

// The scene's light on a frame relative to normal: the slow drift, times the dim exposure in
// the one-second spans the seed picks.
double sceneExposure(const SyntheticScene& o, uint64_t frameIndex) {
  const double drift = finiteOr(o.light.exposureDrift, 0.0);
  const double seedPhase = static_cast<double>(mixBits(o.seed) % 1024) / 1024.0;
  const double cycle = static_cast<double>(frameIndex % kDriftPeriodFrames) / kDriftPeriodFrames;
  double exposure = std::max(0.0, 1.0 + drift * std::sin(2.0 * kPi * (cycle + seedPhase)));
  const double dimChance = std::clamp(finiteOr(o.light.dimProbability, 0.0), 0.0, 1.0);
  if (dimChance > 0.0) {
    const uint64_t key = mixBits(o.seed ^ mixBits(frameIndex / kDimSpanFrames + 0x51ED));
    if (static_cast<double>(key % 1000000) / 1000000.0 < dimChance)
      exposure *= kSyntheticDimExposure;
  }
  return exposure;
}

// Signed distances (pixels, positive inside) of a point to the quadrilateral's four edges,
// each as a x + b y + c with (a, b) a unit normal.
struct Edges {
  cv::Vec3d line[4];
  explicit Edges(const Quad& q) {
    const cv::Point2d centre = (q[0] + q[1] + q[2] + q[3]) * 0.25;
    for (int i = 0; i < 4; ++i) {
      const cv::Point2d a = q[i], d = q[(i + 1) % 4] - a;
      const double len = std::max(std::hypot(d.x, d.y), 1e-12);
      cv::Vec3d l(-d.y / len, d.x / len, 0.0);
      l[2] = -(l[0] * a.x + l[1] * a.y);
      if (l[0] * centre.x + l[1] * centre.y + l[2] < 0.0) l = -l;
      line[i] = l;
    }
  }
};

// Pixels [lo, hi] of row `y` (pixel centres at x + 0.5) whose centre lies at least `margin`
// inside every edge; lo > hi when there are none.
void rowSpan(const Edges& e, double y, double margin, double limit, double& lo, double& hi) {
  lo = -1.0;
  hi = limit;
  for (const cv::Vec3d& l : e.line) {
    const double k = l[1] * y + l[2] - margin;  // l0 * xc + k >= 0, xc = x + 0.5
    if (std::abs(l[0]) < 1e-12) {
      if (k < 0.0) hi = lo - 1.0;
    } else if (l[0] > 0.0) {
      lo = std::max(lo, -k / l[0] - 0.5);
    } else {
      hi = std::min(hi, -k / l[0] - 0.5);
    }
  }
}

// Warps the level of `texture` that best matches the prop's size on screen into the prop's
// bounding box and blends it over `out`, weighting the pixels along its outline by how much
// of them the prop covers, so the edges are antialiased and the outline sits where the truth
// says. `scratch` is reused between calls.
void drawTexture(const Texture& texture, const cv::Matx33d& toPicture, double shade, const Quad& q,
                 cv::Mat& out, cv::Mat& scratch) {
  double minX = q[0].x, maxX = q[0].x, minY = q[0].y, maxY = q[0].y;
  for (const cv::Point2d& p : q) {
    minX = std::min(minX, p.x);
    maxX = std::max(maxX, p.x);
    minY = std::min(minY, p.y);
    maxY = std::max(maxY, p.y);
  }
  if (!std::isfinite(minX) || !std::isfinite(maxX) || !std::isfinite(minY) || !std::isfinite(maxY))
    return;
  // The box one pixel beyond the prop, clipped to the picture before any integer conversion.
  auto clip = [](double v, int limit) { return static_cast<int>(std::clamp(v, 0.0, 1.0 * limit)); };
  const int x0 = clip(std::floor(minX) - 1.0, out.cols), x1 = clip(std::ceil(maxX) + 1.0, out.cols);
  const int y0 = clip(std::floor(minY) - 1.0, out.rows), y1 = clip(std::ceil(maxY) + 1.0, out.rows);
  if (x1 <= x0 || y1 <= y0) return;

  // Coarsest level that still has a texel per screen pixel along the prop's longest edges.
  const double uw = texture.units.width, uh = texture.units.height;
  const double screenPerUnit =
      std::max(std::max(cv::norm(q[1] - q[0]), cv::norm(q[2] - q[3])) / uw,
               std::max(cv::norm(q[3] - q[0]), cv::norm(q[2] - q[1])) / uh);
  const cv::Mat* level = &texture.levels.front();
  for (auto it = texture.levels.rbegin(); it != texture.levels.rend(); ++it) {
    if (it->cols / uw >= screenPerUnit) {
      level = &*it;
      break;
    }
  }
  // Picture coordinates of the bounding box's pixel centres to the level's texel centres.
  const cv::Matx33d toBox(1, 0, -0.5 - x0, 0, 1, -0.5 - y0, 0, 0, 1);
  const cv::Matx33d fromTexel(uw / level->cols, 0, 0.5 * uw / level->cols, 0, uh / level->rows,
                              0.5 * uh / level->rows, 0, 0, 1);
  const cv::Matx33d texelToBox = toBox * toPicture * fromTexel;
  // A view into one buffer the size of the picture, so moving props need no new memory.
  if (scratch.size() != out.size()) scratch.create(out.size(), CV_8UC4);
  cv::Mat warped = scratch(cv::Rect(0, 0, x1 - x0, y1 - y0));
  cv::warpPerspective(*level, warped, texelToBox.inv(), warped.size(),
                      cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
  if (shade < 0.999) cv::multiply(warped, cv::Scalar(shade, shade, shade, 1.0), warped);

  const Edges edges(q);
  for (int y = y0; y < y1; ++y) {
    const double yc = y + 0.5;
    double fullLo, fullHi, anyLo, anyHi;
    rowSpan(edges, yc, 0.5, out.cols, fullLo, fullHi);
    rowSpan(edges, yc, -0.5, out.cols, anyLo, anyHi);
    // Pixel bounds kept within the box before they become integers.
    auto column = [&](double x) { return static_cast<int>(std::clamp(x, x0 - 1.0, x1 + 1.0)); };
    const int full0 = std::max(x0, column(std::ceil(fullLo)));
    const int full1 = std::min(x1 - 1, column(std::floor(fullHi)));
    const int any0 = std::max(x0, column(std::floor(anyLo)));
    const int any1 = std::min(x1 - 1, column(std::ceil(anyHi)));
    uint8_t* dst = out.ptr<uint8_t>(y);
    const uint8_t* src = warped.ptr<uint8_t>(y - y0);
    auto blend = [&](int x) {
      double cover = 1.0;
      for (const cv::Vec3d& l : edges.line)
        cover *= std::clamp(l[0] * (x + 0.5) + l[1] * yc + l[2] + 0.5, 0.0, 1.0);
      if (cover <= 0.0) return;
      uint8_t* p = dst + 4 * x;
      const uint8_t* c = src + 4 * (x - x0);
      for (int i = 0; i < 3; ++i)
        p[i] = static_cast<uint8_t>(std::lround(p[i] + (c[i] - p[i]) * cover));
    };
    if (full0 <= full1) {
      for (int x = any0; x < full0; ++x) blend(x);
      std::memcpy(dst + 4 * full0, src + 4 * (full0 - x0),
                  4 * static_cast<size_t>(full1 - full0 + 1));
      for (int x = full1 + 1; x <= any1; ++x) blend(x);
    } else {
      for (int x = any0; x <= any1; ++x) blend(x);
    }
  }
}

// Specular light, far brighter than the card's own: added after the exposure, so it saturates
// whatever the light; a Gaussian fall-off beyond the radius. (Not blurred.)
void drawGlare(Point centre, double r, cv::Mat& out) {
  const double sigma = 0.6 * r;
  const cv::Point2d c(centre.x, centre.y);
  const int y0 = std::max(0, static_cast<int>(c.y - 4 * r)),
            y1 = std::min(out.rows, static_cast<int>(c.y + 4 * r) + 1);
  const int x0 = std::max(0, static_cast<int>(c.x - 4 * r)),
            x1 = std::min(out.cols, static_cast<int>(c.x + 4 * r) + 1);
  for (int y = y0; y < y1; ++y) {
    uint8_t* p = out.ptr<uint8_t>(y);
    for (int x = x0; x < x1; ++x) {
      const double dist = std::hypot(x + 0.5 - c.x, y + 0.5 - c.y);
      const double add =
          dist <= r ? 255.0 : 255.0 * std::exp(-(dist - r) * (dist - r) / (2 * sigma * sigma));
      for (int k = 0; k < 3; ++k)
        p[4 * x + k] = static_cast<uint8_t>(std::min(255.0, p[4 * x + k] + add));
    }
  }
}

std::array<Point, 4> points(const Quad& q) {
  return {Point{q[0].x, q[0].y}, Point{q[1].x, q[1].y}, Point{q[2].x, q[2].y},
          Point{q[3].x, q[3].y}};
}

Quad project(const cv::Matx33d& h, const Quad& q) {
  return {synthetic::project(h, q[0]), synthetic::project(h, q[1]), synthetic::project(h, q[2]),
          synthetic::project(h, q[3])};
}

Quad rectQuad(const cv::Rect2d& r) {
  return {r.tl(), cv::Point2d(r.x + r.width, r.y), r.br(), cv::Point2d(r.x, r.y + r.height)};
}

bool inside(const Quad& q, double w, double h) {
  return std::all_of(q.begin(), q.end(), [&](const cv::Point2d& p) {
    return p.x >= 0.0 && p.x <= w && p.y >= 0.0 && p.y <= h;
  });
}

// The largest factor a prop's Approach motions may grow it by.
double growth(const SyntheticProp& prop) {
  double g = 1.0;
  for (const SyntheticMotion& m : prop.motion)
    if (m.kind == SyntheticMotion::Kind::Approach && std::isfinite(m.amount))
      g *= std::clamp(m.amount, 1.0, 100.0);
  return g;
}

}  // namespace

// One prop, ready to place and draw.
struct PropState {
  SyntheticProp prop;  // as the scene describes it
  std::string name;
  PropGeometry geometry;
  cv::Rect2d code;      // printed props: the symbol's outline in prop units; empty without one
  cv::Rect2d mrz;       // documents: the machine-readable zone's text block in millimetres
  std::string mrzText;  // documents: the zone as printed
  bool present = true;  // false: a portrait whose photograph could not be read
  Texture texture;      // a portrait's is read up front, printed ones are drawn on first render
};

struct SceneRenderer::Impl {
  SyntheticScene scene;
  size_t width = 0, height = 0;
  bool drawable = false;  // a size we draw
  std::vector<PropState> props;
  // Drawn on the first render, so renderers asked only for their truth cost next to nothing.
  enum class Pictures { NotYet, Ready, Failed } pictures = Pictures::NotYet;
  cv::Mat background;  // BGRA, the picture's size
  std::vector<uint8_t> noiseUp, noiseDown;
  cv::Mat scratch;  // picture-sized; each prop is warped into a part of it

  void setUp();
  bool preparePictures();
  void addNoise(uint64_t frameIndex, cv::Mat& out) const;
  PropView viewOf(const PropState& p, uint64_t frameIndex) const {
    return synthetic::viewOf(poseAt(p.prop, p.geometry, scene.seed, frameIndex, width, height),
                             p.geometry, width, height);
  }
};

void SceneRenderer::Impl::setUp() {
  int counts[5] = {0, 0, 0, 0, 0};
  for (const SyntheticProp& described : scene.props) {
    PropState p;
    p.prop = described;
    const int n = ++counts[static_cast<int>(described.kind) % 5];
    p.name = !described.name.empty() ? described.name
             : n == 1
                 ? std::string(syntheticPropKindName(described.kind))
                 : std::string(syntheticPropKindName(described.kind)) + " " + std::to_string(n);
    PrintedLayout layout;
    switch (described.kind) {
      case SyntheticPropKind::Card:
        layout = cardLayout(described.codeText);
        break;
      case SyntheticPropKind::CodeSticker:
        layout = stickerLayout(described.codeType, described.codeText);
        break;
      case SyntheticPropKind::Passport:
      case SyntheticPropKind::IdCardBack:
        p.mrzText = described.mrzText.empty() ? defaultMRZText(described.kind) : described.mrzText;
        layout = documentLayout(described.kind, p.mrzText);
        p.mrz = layout.mrz;
        break;
      case SyntheticPropKind::Portrait: {
        // Read here rather than on the first render: the truth depends on whether it is there.
        Rect shown;
        if (drawable)
          p.texture = loadPhotoTexture(described.photoPath, described.photoCrop, &shown);
        const double side = described.photoFace.size.width;
        p.present = !p.texture.levels.empty() && std::isfinite(side) && side >= 1.0;
        if (!p.present) break;
        p.geometry.units = p.texture.units;
        p.geometry.anchor = {described.photoFace.origin.x + side / 2.0 - shown.origin.x,
                             described.photoFace.origin.y + side / 2.0 - shown.origin.y};
        p.geometry.widthUnits = side;
        p.geometry.ownRollDegrees = finiteOr(described.photoRollDegrees, 0.0);
        break;
      }
    }
    if (described.kind != SyntheticPropKind::Portrait) {
      p.geometry.units = layout.units;
      p.geometry.anchor = {layout.units.width / 2.0, layout.units.height / 2.0};
      p.geometry.widthUnits = layout.units.width;
      if (layout.hasCode()) p.code = layout.outline;
    }
    props.push_back(std::move(p));
  }
}

SceneRenderer::SceneRenderer(SyntheticScene scene, size_t width, size_t height)
    : impl_(std::make_unique<Impl>()) {
  impl_->scene = std::move(scene);
  impl_->width = width;
  impl_->height = height;
  impl_->drawable = drawableSize(width, height);
  try {
    impl_->setUp();
  } catch (...) {
    impl_->props.clear();  // out of memory already
    impl_->drawable = false;
  }
}

bool SceneRenderer::Impl::preparePictures() {
  if (pictures != Pictures::NotYet) return pictures == Pictures::Ready;
  try {
    const double w = static_cast<double>(width), h = static_cast<double>(height);
    const double ref = std::min(w, 1.8 * h);
    for (PropState& p : props) {
      // Fine enough that the prop is never magnified much on screen.
      const double widest =
          std::max(0.8 * ref, 1.25 * finiteOr(p.prop.size, 0.4) * w * growth(p.prop));
      if (p.prop.kind == SyntheticPropKind::Card)
        p.texture = makeCardTexture(p.prop.codeText, widest / kCardWidthMm);
      else if (p.prop.kind == SyntheticPropKind::CodeSticker)
        p.texture =
            makeStickerTexture(p.prop.codeType, p.prop.codeText, widest / p.geometry.units.width);
      else if (p.prop.kind == SyntheticPropKind::Passport ||
               p.prop.kind == SyntheticPropKind::IdCardBack)
        p.texture = makeDocumentTexture(p.prop.kind, p.mrzText, widest / p.geometry.units.width);
    }
    background = scene.background == SyntheticScene::Background::Wall
                     ? makeWall(width, height, scene.seed)
                     : makeBackground(width, height, scene.seed);
    const double sigma = finiteOr(scene.noiseSigma, 0.0);
    if (sigma > 0.0) {
      std::mt19937_64 rng(mixBits(scene.seed ^ 0x5EED0015Eull));
      std::normal_distribution<double> gauss(0.0, std::min(sigma, 255.0));
      // Laid out as BGRA pixels with no noise on alpha, and split into what it adds and what it
      // takes away, so a row is two saturating byte operations.
      noiseUp.assign(kNoiseTableSize, 0);
      noiseDown.assign(kNoiseTableSize, 0);
      for (size_t i = 0; i < kNoiseTableSize; ++i) {
        if (i % 4 == 3) continue;
        const long n = std::clamp(std::lround(gauss(rng)), -255L, 255L);
        (n > 0 ? noiseUp : noiseDown)[i] = static_cast<uint8_t>(std::abs(n));
      }
    }
    pictures = Pictures::Ready;
  } catch (...) {
    // Out of memory in OpenCV or the standard library: the renderer draws nothing from now on.
    for (PropState& p : props) p.texture = {};
    background.release();
    noiseUp.clear();
    noiseDown.clear();
    pictures = Pictures::Failed;
  }
  return pictures == Pictures::Ready;
}

SceneRenderer::~SceneRenderer() = default;

const SyntheticScene& SceneRenderer::scene() const {
  return impl_->scene;
}
size_t SceneRenderer::width() const {
  return impl_->width;
}
size_t SceneRenderer::height() const {
  return impl_->height;
}

SyntheticFrameTruth SceneRenderer::truth(uint64_t frameIndex) const {
  SyntheticFrameTruth truth;
  truth.frameIndex = frameIndex;
  const Impl& d = *impl_;
  truth.exposure = sceneExposure(d.scene, frameIndex);
  if (d.width == 0 || d.height == 0) return truth;
  const double w = static_cast<double>(d.width), h = static_cast<double>(d.height);
  const double glareChance = std::clamp(finiteOr(d.scene.light.glareProbability, 0.0), 0.0, 1.0);
  uint64_t cards = 0;
  for (const PropState& p : d.props) {
    if (!p.present) continue;
    // Glare falls on printed cards and documents; the count keeps a card scene's glare frames
    // as they were before documents existed.
    const bool glossy = p.prop.kind == SyntheticPropKind::Card ||
                        p.prop.kind == SyntheticPropKind::Passport ||
                        p.prop.kind == SyntheticPropKind::IdCardBack;
    const uint64_t cardIndex = glossy ? cards++ : 0;
    const Pose pose = poseAt(p.prop, p.geometry, d.scene.seed, frameIndex, d.width, d.height);
    const PropView view = synthetic::viewOf(pose, p.geometry, d.width, d.height);
    const Quad outline = project(
        view.toPicture, rectQuad({0.0, 0.0, p.geometry.units.width, p.geometry.units.height}));
    if (!(visibleQuadArea(outline, w, h) > 0.0)) continue;
    SyntheticPropTruth t;
    t.kind = p.prop.kind;
    t.name = p.name;
    t.corners = points(outline);
    t.fullyVisible = inside(outline, w, h);
    t.tiltDegrees = view.tiltDegrees;
    t.rollDegrees = view.rollDegrees;
    if (p.code.area() > 0.0) {
      SyntheticCodeTruth code;
      code.type =
          p.prop.kind == SyntheticPropKind::Card ? SyntheticCodeType::PDF417 : p.prop.codeType;
      code.text = p.prop.codeText;
      code.corners = points(project(view.toPicture, rectQuad(p.code)));
      t.codes.push_back(std::move(code));
    }
    if (p.prop.kind == SyntheticPropKind::Portrait) {
      // The face's square in the photograph, turned by the head's own roll there.
      const double half = p.geometry.widthUnits / 2.0;
      const double a = p.geometry.ownRollDegrees * kPi / 180.0;
      const cv::Point2d across(std::cos(a), std::sin(a)), down(-std::sin(a), std::cos(a));
      const cv::Point2d c = p.geometry.anchor;
      const Quad square = project(
          view.toPicture, {c - half * across - half * down, c + half * across - half * down,
                           c + half * across + half * down, c - half * across + half * down});
      if (visibleQuadArea(square, w, h) > 0.0) {
        SyntheticFaceTruth face;
        const cv::Point2d centre = synthetic::project(view.toPicture, c);
        const double side =
            (cv::norm(square[1] - square[0]) + cv::norm(square[2] - square[3])) / 2.0;
        face.box = {{centre.x - side / 2.0, centre.y - side / 2.0}, {side, side}};
        face.corners = points(square);
        face.fullyVisible = inside(square, w, h);
        face.rollDegrees = view.rollDegrees + p.geometry.ownRollDegrees;
        face.yawDegrees = pose.yaw * 180.0 / kPi;
        t.face = face;
      }
    }
    if (p.mrz.area() > 0.0) {
      SyntheticMRZTruth mrz;
      mrz.text = p.mrzText;
      const Quad zone = project(view.toPicture, rectQuad(p.mrz));
      mrz.corners = points(zone);
      mrz.fullyVisible = inside(zone, w, h);
      // Capitals are 2.4 mm high in a block p.mrz.height mm high.
      const double side = (cv::norm(zone[3] - zone[0]) + cv::norm(zone[2] - zone[1])) / 2.0;
      mrz.characterHeight = side * 2.4 / p.mrz.height;
      t.mrz = std::move(mrz);
    }
    if (glossy && glareChance > 0.0) {
      const uint64_t key = mixBits(
          d.scene.seed ^ mixBits(frameIndex * 0x9E3779B97F4A7C15ull + 7 + 1000003 * cardIndex));
      if (static_cast<double>(key % 1000000) / 1000000.0 < glareChance) {
        // Somewhere on the card's middle (15..85 % across, 20..80 % down).
        const double u = 0.15 + 0.7 * static_cast<double>((key >> 20) % 1024) / 1023.0;
        const double v = 0.2 + 0.6 * static_cast<double>((key >> 30) % 1024) / 1023.0;
        const cv::Point2d c = synthetic::project(
            view.toPicture, {u * p.geometry.units.width, v * p.geometry.units.height});
        t.glareCentre = {c.x, c.y};
        t.glareRadius = cv::norm(outline[1] - outline[0]) / 16.0;
        t.glareVisible = c.x >= 0.0 && c.x <= w && c.y >= 0.0 && c.y <= h;
      }
    }
    truth.props.push_back(std::move(t));
  }
  return truth;
}

void SceneRenderer::Impl::addNoise(uint64_t frameIndex, cv::Mat& out) const {
  const size_t span = 4 * static_cast<size_t>(out.cols);
  const size_t offsets = (kNoiseTableSize - span) / 4;
  for (int y = 0; y < out.rows; ++y) {
    const uint64_t key = mixBits(scene.seed ^ mixBits(frameIndex * 0x100000001B3ull + y));
    const uint8_t* up = noiseUp.data() + 4 * (key % offsets);
    const uint8_t* down = noiseDown.data() + 4 * (key % offsets);
    uint8_t* p = out.ptr<uint8_t>(y);
    size_t i = 0;
#if CV_SIMD128
    for (; i + cv::v_uint8x16::nlanes <= span; i += cv::v_uint8x16::nlanes) {
      // Saturating byte arithmetic; only one of up and down is non-zero for any byte.
      cv::v_store(p + i, cv::v_load(p + i) + cv::v_load(up + i) - cv::v_load(down + i));
    }
#endif
    for (; i < span; ++i) p[i] = static_cast<uint8_t>(std::clamp(p[i] + up[i] - down[i], 0, 255));
  }
}

SyntheticFrameTruth SceneRenderer::render(uint64_t frameIndex, const CameraEffects& effects,
                                          uint8_t* bgra, size_t bytesPerRow) {
  SyntheticFrameTruth truth = this->truth(frameIndex);
  Impl& d = *impl_;
  const size_t w = d.width, h = d.height;
  if (!d.drawable || bgra == nullptr || bytesPerRow < 4 * w || !d.preparePictures()) return truth;
  try {
    cv::Mat out(static_cast<int>(h), static_cast<int>(w), CV_8UC4, bgra, bytesPerRow);
    d.background.copyTo(out);
    for (const PropState& p : d.props) {
      if (!p.present || p.texture.levels.empty()) continue;
      const PropView view = d.viewOf(p, frameIndex);
      const Quad q = project(view.toPicture,
                             rectQuad({0.0, 0.0, p.geometry.units.width, p.geometry.units.height}));
      if (!(visibleQuadArea(q, static_cast<double>(w), static_cast<double>(h)) > 0.0)) continue;
      // Printed props take the room's light by their turn; a portrait stands for a person,
      // whose photograph already holds its own light.
      const double shade = p.prop.kind == SyntheticPropKind::Portrait ? 1.0 : view.shade;
      drawTexture(p.texture, view.toPicture, shade, q, out, d.scratch);
    }
    auto sigma = [](double s) { return std::isfinite(s) && s > 0.0 ? s : 0.0; };
    const double blur =
        std::min(kMaxBlurSigma, std::hypot(sigma(d.scene.blurSigma), sigma(effects.defocusSigma)));
    if (blur >= 0.05) cv::GaussianBlur(out, out, cv::Size(), blur, blur, cv::BORDER_REFLECT_101);

    const double gain =
        std::clamp(finiteOr(effects.lightGain, 1.0), 0.0, kMaxLightGain) * truth.exposure;
    if (std::abs(gain - 1.0) > 1e-9) {
      out.convertTo(out, -1, gain);
      out |= cv::Scalar(0, 0, 0, 255);  // alpha scaled with the rest; opaque again
    }
    for (const SyntheticPropTruth& t : truth.props)
      if (t.glareRadius > 0.0) drawGlare(t.glareCentre, t.glareRadius, out);

    if (!d.noiseUp.empty()) d.addNoise(frameIndex, out);
  } catch (...) {
    // Only allocation failures can land here; the buffer may hold a partial picture.
  }
  return truth;
}

}  // namespace kwq::synthetic
