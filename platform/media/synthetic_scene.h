#pragma once

// The picture the synthetic camera films: an ID card (86 x 54 mm) carrying printed text, a photo
// area and a PDF417 code, moving smoothly under perspective in front of a textured background.
// Every frame comes with its ground truth, so tests can check what the engine finds.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "kwqimage/Geometry.h"
#include "kwqimage/SyntheticCamera.h"
#include "platform/media/synthetic_portrait.h"

namespace kwq::platform {

/// What the scene shows; fixed for the life of a scene.
struct SyntheticSceneOptions {
  size_t width = 1280;
  size_t height = 720;
  /// The card scene or the portrait scene.
  SyntheticSceneKind kind = SyntheticSceneKind::Card;
  /// The portrait scene's photograph; one that cannot be read leaves the scene without it.
  std::string portraitPath = kPortraitPhotoPath;
  /// Text of the PDF417 code printed on the card.
  std::string codeText = std::string(kSyntheticCardAAMVAText);
  /// False films the background alone (frames without a card).
  bool showCard = true;
  /// Gaussian blur of the whole picture, in pixels (0: sharp).
  double blurSigma = 0.0;
  /// Standard deviation of per-pixel sensor noise, in gray levels (0: none).
  double noiseSigma = 0.0;
  /// Amplitude of a slow brightness drift as a fraction of the exposure (0: steady).
  double exposureDrift = 0.0;
  /// Share of one-second spans (0..1, chosen per span from the seed) filmed in dim light, at
  /// kSyntheticDimExposure of the normal exposure: a room light switched off, a hand's shadow.
  double dimProbability = 0.0;
  /// Share of frames with a specular highlight on the card (0..1; chosen per frame from the
  /// seed): a hotspot that saturates a disc of radius 1/16 of the card's width and fades
  /// beyond it, somewhere on the card's middle. Drawn after blur and light (it saturates at any
  /// exposure), before noise.
  double glareProbability = 0.0;
  /// Seeds the background texture, the noise and the motion path.
  uint64_t seed = 1;
};

/// How the simulated camera's controls change a frame: the capture layer derives these from
/// the device's focus mode, range restriction, torch and flash.
struct SyntheticCameraEffects {
  /// Extra blur from a lens that is out of focus, in pixels (0: in focus).
  double defocusSigma = 0.0;
  /// Multiplies the scene's light (1: as is; a torch or a firing flash brightens the card).
  double lightGain = 1.0;
};

/// Renders frames of one scene. Not thread-safe: one thread renders a scene at a time.
///
/// The card's path repeats every 1800 frames (60 s). The card spans about 37 to 65 % of the
/// picture's width (of 1.8 x its height when wider than that), faces the camera squarely at
/// frames 0 and 900 of each period, tilts up to about 21 degrees in between and rolls within
/// about 5 (PDF417 readers lose rows skewed further). Twice a period, once between 12 and 26 s
/// and once between 42 and 56 s, it slides partly out of the picture, for 3 to 4.5 s of partial
/// frames a minute in all. The portrait scene's path is portraitViewAt()'s; a portrait scene
/// whose photograph cannot be read films the background alone and its truth has no face (a
/// portrait scene reads its photograph when it is made). Scenes of 1 to 8192 pixels a side and at
/// most 40 megapixels are drawn; a scene of any other size renders nothing. Nothing here throws.
///
/// Making a scene and asking for truth is cheap; the first render draws the card texture and
/// the background (about 60 ms at 1280 x 720 and 250 ms at 1920 x 1080 on one core), later
/// frames reuse them.
class SyntheticScene {
 public:
  static constexpr size_t kMaxSide = 8192;
  static constexpr size_t kMaxPixels = 40u * 1000u * 1000u;

  explicit SyntheticScene(SyntheticSceneOptions options);
  ~SyntheticScene();
  SyntheticScene(const SyntheticScene&) = delete;
  SyntheticScene& operator=(const SyntheticScene&) = delete;

  const SyntheticSceneOptions& options() const;

  /// Renders frame `frameIndex` (at 30 frames a second, time = frameIndex / 30 s) as opaque
  /// BGRA (alpha 255) into `bgra`, which holds options().height rows of `bytesPerRow` bytes
  /// (at least 4 x width). The same index always gives the same picture and truth. Cheap
  /// enough for 1280 x 720 at 30 fps on one core. Effects apply in this order: blur of
  /// sqrt(blurSigma^2 + defocusSigma^2) (capped at 50 pixels; negative or NaN sigmas count as
  /// 0), gain lightGain x exposure drift (lightGain clamped to 0..64, NaN as 1), then noise.
  /// Writes only the first 4 x width bytes of each row. A null `bgra`, a `bytesPerRow` below
  /// 4 x width or a scene that renders nothing leaves the buffer untouched; the truth is
  /// returned in every case.
  SyntheticFrameTruth render(uint64_t frameIndex, const SyntheticCameraEffects& effects,
                             uint8_t* bgra, size_t bytesPerRow);

  /// The ground truth of a frame without rendering it.
  SyntheticFrameTruth truth(uint64_t frameIndex) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kwq::platform
