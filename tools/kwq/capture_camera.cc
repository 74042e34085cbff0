#include "kwq/capture_camera.h"

#include <filesystem>
#include <string>
#include <vector>

#include <kwqimage/SyntheticCamera.h>

namespace kwq::tool {
namespace {

// The scene the run asks for (--scene, else the mode's), with --glare and --dim; none after
// one line on `err`.
std::optional<SyntheticScene> sceneFor(const CaptureOptions& run, std::ostream& err) {
  std::string name = run.scene.empty() ? (run.cardMode ? "card" : "portrait") : run.scene;
  std::optional<SyntheticScene> scene = SyntheticScene::preset(name);
  if (!scene) {
    std::string error;
    scene = syntheticSceneFromFile(name, &error);
    if (!scene) {
      err << "kwq capture: --scene takes card, turning, portrait, empty or a scene file: " << error
          << "\n";
      return std::nullopt;
    }
  }
  if (run.glare > 0) scene->light.glareProbability = run.glare;
  if (run.dim > 0) scene->light.dimProbability = run.dim;
  return scene;
}

// The synthetic camera settings the run asks for.
SyntheticCameraOptions syntheticOptions(const SyntheticScene& scene) {
  SyntheticCameraOptions options;
  options.scene = scene;
  return options;
}

// A synthetic camera like `camera` (its position, id and name) with the run's settings.
std::shared_ptr<CaptureDevice> syntheticCameraLike(const CaptureDevice& camera,
                                                   const SyntheticScene& scene) {
  SyntheticCameraOptions options = syntheticOptions(scene);
  options.position = camera.position();
  options.uniqueID = camera.uniqueID();
  options.localizedName = camera.localizedName();
  return CaptureDevice::syntheticCamera(options);
}

// The camera to switch to with --toggle-at: a synthetic camera of the other position filming
// the same scene, so that a machine without a second camera can show the switch.
std::shared_ptr<CaptureDevice> partnerFor(const CaptureDevice& camera,
                                          const SyntheticScene& scene) {
  SyntheticCameraOptions options = syntheticOptions(scene);
  options.position = camera.position() == AVCaptureDevicePositionFront
                         ? AVCaptureDevicePositionBack
                         : AVCaptureDevicePositionFront;
  return CaptureDevice::syntheticCamera(options);
}

// The camera named on the command line; null after one line on `err`.
std::shared_ptr<CaptureDevice> chooseCamera(const std::string& name, std::ostream& err) {
  if (name.empty()) {
    auto camera = CaptureDevice::defaultDeviceWithMediaType(AVMediaTypeVideo);
    if (!camera) err << "kwq capture: no camera found\n";
    return camera;
  }
  if (name == "synthetic") return CaptureDevice::syntheticCamera();
  if (auto camera = CaptureDevice::deviceWithUniqueID(name)) return camera;
  std::error_code ec;
  if (std::filesystem::is_regular_file(name, ec)) {
    auto camera = CaptureDevice::fileCamera(name);
    if (!camera) err << "kwq capture: '" << name << "' has no video this tool can play\n";
    return camera;
  }
  std::string ids;
  for (const auto& camera : CaptureDevice::devices())
    ids += (ids.empty() ? "" : ", ") + camera->uniqueID();
  err << "kwq capture: no camera or video file '" << name << "' (cameras: " << ids
      << "; or synthetic)\n";
  return nullptr;
}

}  // namespace

std::shared_ptr<CaptureDevice> setUpCamera(const CaptureOptions& options, std::ostream& err) {
  std::shared_ptr<CaptureDevice> camera = chooseCamera(options.camera, err);
  if (!camera) return nullptr;
  // Synthetic cameras film the card; face mode films the portrait instead.
  std::optional<SyntheticScene> scene;
  if (isSyntheticCamera(*camera)) {
    scene = sceneFor(options, err);
    if (!scene) return nullptr;
    camera = syntheticCameraLike(*camera, *scene);
  } else if (options.glare > 0 || options.dim > 0 || !options.scene.empty()) {
    err << "kwq capture: --scene, --glare and --dim set up the synthetic camera; "
        << camera->uniqueID() << " is not one\n";
    return nullptr;
  }
  std::vector<std::shared_ptr<CaptureDevice>> devices{camera};
  if (options.toggleAt)
    devices.push_back(partnerFor(*camera, scene ? *scene : *SyntheticScene::preset("card")));
  CaptureDevice::setDevices(devices);
  return camera;
}

}  // namespace kwq::tool
