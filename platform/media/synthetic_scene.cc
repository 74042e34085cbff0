#include "platform/media/synthetic_scene.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/imgproc.hpp>

#include "platform/media/synthetic_background.h"
#include "platform/media/synthetic_card.h"
#include "platform/media/synthetic_motion.h"

namespace kwq::platform {
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
  return w >= 1 && h >= 1 && w <= SyntheticScene::kMaxSide && h <= SyntheticScene::kMaxSide &&
         w * h <= SyntheticScene::kMaxPixels;
}

double finiteOr(double v, double fallback) {
  return std::isfinite(v) ? v : fallback;
}

using Quad = std::array<cv::Point2d, 4>;

// The scene's light on a frame relative to normal: the slow drift, times the dim exposure in
// the one-second spans the seed picks.
double sceneExposure(const SyntheticSceneOptions& o, uint64_t frameIndex) {
  const double drift = finiteOr(o.exposureDrift, 0.0);
  const double seedPhase = static_cast<double>(mixBits(o.seed) % 1024) / 1024.0;
  const double cycle = static_cast<double>(frameIndex % kDriftPeriodFrames) / kDriftPeriodFrames;
  double exposure = std::max(0.0, 1.0 + drift * std::sin(2.0 * kPi * (cycle + seedPhase)));
  const double dimChance = std::clamp(finiteOr(o.dimProbability, 0.0), 0.0, 1.0);
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

}  // namespace

struct SyntheticScene::Impl {
  SyntheticSceneOptions options;
  bool drawable = false;  // a size we draw
  cv::Rect2d codeMm;      // where the card's code sits; empty without one
  // Drawn on the first render, so scenes asked only for their truth cost next to nothing.
  enum class Pictures { NotYet, Ready, Failed } pictures = Pictures::NotYet;
  CardTexture card;
  std::unique_ptr<PortraitPicture> portrait;  // the portrait scene's photograph
  cv::Mat background;                         // BGRA, the picture's size
  std::vector<uint8_t> noiseUp, noiseDown;
  cv::Mat scratch;  // picture-sized; the card is warped into a part of it

  Quad corners(const CardView& view, const cv::Rect2d& r) const {
    return {project(view.cardToPicture, r.tl()), project(view.cardToPicture, {r.x + r.width, r.y}),
            project(view.cardToPicture, r.br()),
            project(view.cardToPicture, {r.x, r.y + r.height})};
  }

  bool preparePictures();
  void drawCard(const CardView& view, const Quad& q, cv::Mat& out);
  void addNoise(uint64_t frameIndex, cv::Mat& out) const;
};

SyntheticScene::SyntheticScene(SyntheticSceneOptions options) : impl_(std::make_unique<Impl>()) {
  impl_->options = std::move(options);
  impl_->drawable = drawableSize(impl_->options.width, impl_->options.height);
  if (impl_->drawable && impl_->options.kind == SyntheticSceneKind::Portrait) {
    // Read here rather than on the first render: the truth depends on whether it is there.
    try {
      impl_->portrait = std::make_unique<PortraitPicture>(impl_->options.portraitPath);
    } catch (...) {
      impl_->portrait.reset();
    }
  } else if (impl_->drawable && impl_->options.showCard) {
    try {
      impl_->codeMm = codeOutlineMm(impl_->options.codeText);
    } catch (...) {
      impl_->drawable = false;  // out of memory already
    }
  }
}

bool SyntheticScene::Impl::preparePictures() {
  if (pictures != Pictures::NotYet) return pictures == Pictures::Ready;
  try {
    const size_t w = options.width, h = options.height;
    const double ref = std::min<double>(static_cast<double>(w), 1.8 * static_cast<double>(h));
    // Fine enough that the card is never magnified much (it is at most about 0.75 ref wide).
    if (options.kind == SyntheticSceneKind::Card && options.showCard)
      card = makeCardTexture(options.codeText, 0.8 * ref / kCardWidthMm);
    background = makeBackground(w, h, options.seed);
    const double sigma = finiteOr(options.noiseSigma, 0.0);
    if (sigma > 0.0) {
      std::mt19937_64 rng(mixBits(options.seed ^ 0x5EED0015Eull));
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
    // Out of memory in OpenCV or the standard library: the scene renders nothing from now on.
    card = {};
    background.release();
    noiseUp.clear();
    noiseDown.clear();
    pictures = Pictures::Failed;
  }
  return pictures == Pictures::Ready;
}

SyntheticScene::~SyntheticScene() = default;

const SyntheticSceneOptions& SyntheticScene::options() const {
  return impl_->options;
}

SyntheticFrameTruth SyntheticScene::truth(uint64_t frameIndex) const {
  SyntheticFrameTruth truth;
  truth.frameIndex = frameIndex;
  const Impl& d = *impl_;
  truth.exposure = sceneExposure(d.options, frameIndex);
  if (d.options.kind == SyntheticSceneKind::Portrait) {
    if (d.portrait && !d.portrait->empty())
      setPortraitTruth(portraitViewAt(frameIndex, d.options.width, d.options.height),
                       d.options.width, d.options.height, truth);
    return truth;
  }
  if (!d.drawable || !d.options.showCard) return truth;
  const double w = static_cast<double>(d.options.width), h = static_cast<double>(d.options.height);
  const CardView view = cardViewAt(d.options.seed, frameIndex, d.options.width, d.options.height);
  const Quad card = d.corners(view, {0.0, 0.0, kCardWidthMm, kCardHeightMm});
  for (int i = 0; i < 4; ++i) truth.cardCorners[i] = {card[i].x, card[i].y};
  truth.cardTiltDegrees = view.tiltDegrees;
  truth.cardVisible = visibleQuadArea(card, w, h) > 0.0;
  truth.cardFullyVisible = std::all_of(card.begin(), card.end(), [&](const cv::Point2d& p) {
    return p.x >= 0.0 && p.x <= w && p.y >= 0.0 && p.y <= h;
  });
  const double glareChance = std::clamp(finiteOr(d.options.glareProbability, 0.0), 0.0, 1.0);
  if (glareChance > 0.0) {
    const uint64_t key = mixBits(d.options.seed ^ mixBits(frameIndex * 0x9E3779B97F4A7C15ull + 7));
    if (static_cast<double>(key % 1000000) / 1000000.0 < glareChance) {
      // Somewhere on the card's middle (15..85 % across, 20..80 % down), in card millimetres.
      const double u = 0.15 + 0.7 * static_cast<double>((key >> 20) % 1024) / 1023.0;
      const double v = 0.2 + 0.6 * static_cast<double>((key >> 30) % 1024) / 1023.0;
      const cv::Point2d c = project(view.cardToPicture, {u * kCardWidthMm, v * kCardHeightMm});
      const double width = cv::norm(card[1] - card[0]);
      truth.glareCentre = {c.x, c.y};
      truth.glareRadius = width / 16.0;
      truth.glareVisible = c.x >= 0.0 && c.x <= w && c.y >= 0.0 && c.y <= h;
    }
  }
  if (d.codeMm.area() > 0.0) {
    const Quad code = d.corners(view, d.codeMm);
    for (int i = 0; i < 4; ++i) truth.codeCorners[i] = {code[i].x, code[i].y};
    truth.codeText = d.options.codeText;
  }
  return truth;
}

// Warps the card level that best matches its size on screen into its bounding box and blends
// it over `out`, weighting the pixels along its outline by how much of them the card covers,
// so the edges are antialiased and the outline sits where the truth says.
void SyntheticScene::Impl::drawCard(const CardView& view, const Quad& q, cv::Mat& out) {
  double minX = q[0].x, maxX = q[0].x, minY = q[0].y, maxY = q[0].y;
  for (const cv::Point2d& p : q) {
    minX = std::min(minX, p.x);
    maxX = std::max(maxX, p.x);
    minY = std::min(minY, p.y);
    maxY = std::max(maxY, p.y);
  }
  // The box one pixel beyond the card, clipped to the picture before any integer conversion.
  auto clip = [](double v, int limit) { return static_cast<int>(std::clamp(v, 0.0, 1.0 * limit)); };
  const int x0 = clip(std::floor(minX) - 1.0, out.cols), x1 = clip(std::ceil(maxX) + 1.0, out.cols);
  const int y0 = clip(std::floor(minY) - 1.0, out.rows), y1 = clip(std::ceil(maxY) + 1.0, out.rows);
  if (x1 <= x0 || y1 <= y0) return;

  // Coarsest level that still has a texel per screen pixel along the card's longest edges.
  const double screenPerMm =
      std::max(std::max(cv::norm(q[1] - q[0]), cv::norm(q[2] - q[3])) / kCardWidthMm,
               std::max(cv::norm(q[3] - q[0]), cv::norm(q[2] - q[1])) / kCardHeightMm);
  const cv::Mat* level = &card.levels.front();
  for (auto it = card.levels.rbegin(); it != card.levels.rend(); ++it) {
    if (it->cols / kCardWidthMm >= screenPerMm) {
      level = &*it;
      break;
    }
  }
  // Picture coordinates of the bounding box's pixel centres to the level's texel centres.
  const cv::Matx33d toPicture(1, 0, -0.5 - x0, 0, 1, -0.5 - y0, 0, 0, 1);
  const cv::Matx33d fromTexel(kCardWidthMm / level->cols, 0, 0.5 * kCardWidthMm / level->cols, 0,
                              kCardHeightMm / level->rows, 0.5 * kCardHeightMm / level->rows, 0, 0,
                              1);
  const cv::Matx33d texelToBox = toPicture * view.cardToPicture * fromTexel;
  // A view into one buffer the size of the picture, so moving cards need no new memory.
  if (scratch.size() != out.size()) scratch.create(out.size(), CV_8UC4);
  cv::Mat warped = scratch(cv::Rect(0, 0, x1 - x0, y1 - y0));
  cv::warpPerspective(*level, warped, texelToBox.inv(), warped.size(),
                      cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
  if (view.shade < 0.999)
    cv::multiply(warped, cv::Scalar(view.shade, view.shade, view.shade, 1.0), warped);

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

void SyntheticScene::Impl::addNoise(uint64_t frameIndex, cv::Mat& out) const {
  const size_t span = 4 * static_cast<size_t>(out.cols);
  const size_t offsets = (kNoiseTableSize - span) / 4;
  for (int y = 0; y < out.rows; ++y) {
    const uint64_t key = mixBits(options.seed ^ mixBits(frameIndex * 0x100000001B3ull + y));
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

SyntheticFrameTruth SyntheticScene::render(uint64_t frameIndex,
                                           const SyntheticCameraEffects& effects, uint8_t* bgra,
                                           size_t bytesPerRow) {
  SyntheticFrameTruth truth = this->truth(frameIndex);
  Impl& d = *impl_;
  const size_t w = d.options.width, h = d.options.height;
  if (!d.drawable || bgra == nullptr || bytesPerRow < 4 * w || !d.preparePictures()) return truth;
  try {
    cv::Mat out(static_cast<int>(h), static_cast<int>(w), CV_8UC4, bgra, bytesPerRow);
    d.background.copyTo(out);
    if (d.portrait && !d.portrait->empty()) d.portrait->draw(portraitViewAt(frameIndex, w, h), out);
    if (truth.cardVisible && !d.card.levels.empty()) {
      const CardView view = cardViewAt(d.options.seed, frameIndex, w, h);
      const Quad q = d.corners(view, {0.0, 0.0, kCardWidthMm, kCardHeightMm});
      d.drawCard(view, q, out);
    }
    auto sigma = [](double s) { return std::isfinite(s) && s > 0.0 ? s : 0.0; };
    const double blur = std::min(
        kMaxBlurSigma, std::hypot(sigma(d.options.blurSigma), sigma(effects.defocusSigma)));
    if (blur >= 0.05) cv::GaussianBlur(out, out, cv::Size(), blur, blur, cv::BORDER_REFLECT_101);

    const double gain =
        std::clamp(finiteOr(effects.lightGain, 1.0), 0.0, kMaxLightGain) * truth.exposure;
    if (std::abs(gain - 1.0) > 1e-9) {
      out.convertTo(out, -1, gain);
      out |= cv::Scalar(0, 0, 0, 255);  // alpha scaled with the rest; opaque again
    }

    if (truth.glareRadius > 0.0) {
      // Specular light, far brighter than the card's own: added after the exposure, so it
      // saturates whatever the light; a Gaussian fall-off beyond the radius. (Not blurred.)
      const double r = truth.glareRadius, sigma = 0.6 * r;
      const cv::Point2d c(truth.glareCentre.x, truth.glareCentre.y);
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

    if (!d.noiseUp.empty()) d.addNoise(frameIndex, out);
  } catch (...) {
    // Only allocation failures can land here; the buffer may hold a partial picture.
  }
  return truth;
}

}  // namespace kwq::platform
