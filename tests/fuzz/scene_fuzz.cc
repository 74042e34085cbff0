// Fuzzes the scene file reader with any bytes as the file's text, and films a small frame of
// every scene it accepts. Beyond not crashing or reading out of bounds: a refused text says
// why, and an accepted scene's truth names only props it holds, with finite corners.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "kwqimage/SyntheticScene.h"
#include "synthetic/renderer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  auto scene = kwq::syntheticSceneFromJson(text, &error);
  if (!scene) {
    if (error.empty()) std::abort();
    return 0;
  }
  if (scene->props.size() > 8) return 0;  // each card is a few megabytes of texture
  for (kwq::SyntheticProp& p : scene->props) p.photoPath = kwq::kSyntheticPortraitPhotoPath;
  kwq::synthetic::SceneRenderer renderer(*scene, 48, 32);
  std::vector<uint8_t> frame(48 * 32 * 4);
  const kwq::SyntheticFrameTruth t = renderer.render(size * 7919, {}, frame.data(), 48 * 4);
  if (t.props.size() > scene->props.size()) std::abort();
  for (const kwq::SyntheticPropTruth& p : t.props)
    for (const kwq::Point& c : p.corners)
      if (!std::isfinite(c.x) || !std::isfinite(c.y)) std::abort();
  return 0;
}
