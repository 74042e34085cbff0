#pragma once

// Draws a synthetic scene's frames and tells what each shows: the background, the props as
// their motions place them through a pinhole lens, the light, blur, glare and sensor noise.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kwqimage/SyntheticCamera.h"
#include "kwqimage/SyntheticScene.h"

namespace kwq::synthetic {

/// How the simulated camera's controls change a frame: the camera derives these from the
/// device's focus mode, range restriction, torch and flash.
struct CameraEffects {
  /// Extra blur from a lens that is out of focus, in pixels (0: in focus).
  double defocusSigma = 0.0;
  /// Multiplies the scene's light (1: as is; a torch or a firing flash brightens the scene).
  double lightGain = 1.0;
};

/// Renders frames of one scene at one size. Not thread-safe: one thread renders at a time.
///
/// Scenes of 1 to 8192 pixels a side and at most 40 megapixels are drawn; a renderer of any
/// other size renders nothing (its truth still describes the scene). A portrait whose
/// photograph cannot be read is left out, of the pictures and of the truth (the photograph is
/// read when the renderer is made). Nothing here throws.
///
/// Making a renderer and asking for truth is cheap; the first render draws the textures and the
/// background (about 60 ms at 1280 x 720 and 250 ms at 1920 x 1080 on one core for the card
/// scene), later frames reuse them.
class SceneRenderer {
 public:
  static constexpr size_t kMaxSide = 8192;
  static constexpr size_t kMaxPixels = 40u * 1000u * 1000u;

  SceneRenderer(SyntheticScene scene, size_t width, size_t height);
  ~SceneRenderer();
  SceneRenderer(const SceneRenderer&) = delete;
  SceneRenderer& operator=(const SceneRenderer&) = delete;

  const SyntheticScene& scene() const;
  size_t width() const;
  size_t height() const;

  /// Renders frame `frameIndex` (at 30 frames a second, time = frameIndex / 30 s) as opaque
  /// BGRA (alpha 255) into `bgra`, which holds height() rows of `bytesPerRow` bytes (at least
  /// 4 x width). The same index always gives the same picture and truth. Cheap enough for
  /// 1280 x 720 at 30 fps on one core. Effects apply in this order: blur of
  /// sqrt(blurSigma^2 + defocusSigma^2) (capped at 50 pixels; negative or NaN sigmas count as
  /// 0), gain lightGain x the scene's exposure (lightGain clamped to 0..64, NaN as 1), glare,
  /// then noise. Writes only the first 4 x width bytes of each row. A null `bgra`, a
  /// `bytesPerRow` below 4 x width or a renderer that renders nothing leaves the buffer
  /// untouched; the truth is returned in every case.
  SyntheticFrameTruth render(uint64_t frameIndex, const CameraEffects& effects, uint8_t* bgra,
                             size_t bytesPerRow);

  /// The ground truth of a frame without rendering it.
  SyntheticFrameTruth truth(uint64_t frameIndex) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kwq::synthetic
