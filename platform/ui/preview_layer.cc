#include <algorithm>
#include <cmath>

#include "kwqimage/CaptureSession.h"
#include "kwqimage/Layer.h"
#include "platform/media/capture_internal.h"
#include "platform/ui/video_gravity.h"

namespace kwq {
namespace {

// A face turned or rolled one way shows turned the other way in a mirror.
double mirroredAngle(double degrees) {
  const double a = std::fmod(360.0 - degrees, 360.0);
  return a < 0 ? a + 360.0 : a;
}

}  // namespace

namespace platform {

Rect videoRectForGravity(const Rect& bounds, Size video, std::string_view gravity) {
  if (!(video.width > 0 && video.height > 0)) return Rect::null();
  const Rect b = bounds;
  if (gravity == AVLayerVideoGravityResize) return b;
  const double sx = b.size.width / video.width, sy = b.size.height / video.height;
  const double s =
      gravity == AVLayerVideoGravityResizeAspectFill ? std::max(sx, sy) : std::min(sx, sy);
  const double w = video.width * s, h = video.height * s;
  return {b.origin.x + (b.size.width - w) / 2, b.origin.y + (b.size.height - h) / 2, w, h};
}

}  // namespace platform

std::shared_ptr<PreviewLayer> PreviewLayer::layerWithSession(
    std::shared_ptr<CaptureSession> session) {
  std::shared_ptr<PreviewLayer> layer(new PreviewLayer);
  layer->setSession(std::move(session));
  return layer;
}

void PreviewLayer::setVideoGravity(std::string_view gravity) {
  if (gravity == AVLayerVideoGravityResizeAspect ||
      gravity == AVLayerVideoGravityResizeAspectFill || gravity == AVLayerVideoGravityResize)
    videoGravity_ = gravity;
}

bool PreviewLayer::isMirrored() const {
  if (!session_) return false;
  auto camera = platform::sessionCamera(*session_);
  return camera && camera->position() == AVCaptureDevicePositionFront;
}

Rect PreviewLayer::videoRect() const {
  if (!session_) return Rect::null();
  return platform::videoRectForGravity(bounds(), platform::sessionVideoSize(*session_),
                                       videoGravity_);
}

std::shared_ptr<MetadataObject> PreviewLayer::transformedMetadataObjectForMetadataObject(
    const MetadataObject& object) const {
  const Rect video = videoRect();
  if (video.isNull()) return nullptr;
  const bool mirrored = isMirrored();
  auto map = [&](Point p) {
    const double x = mirrored ? 1.0 - p.x : p.x;
    return Point{video.origin.x + x * video.size.width, video.origin.y + p.y * video.size.height};
  };
  const Rect n = object.bounds.standardized();
  const Point a = map(n.origin), b = map({n.origin.x + n.size.width, n.origin.y + n.size.height});
  const Rect bounds{std::min(a.x, b.x), std::min(a.y, b.y), std::abs(b.x - a.x),
                    std::abs(b.y - a.y)};

  std::shared_ptr<MetadataObject> result;
  if (auto* face = dynamic_cast<const MetadataFaceObject*>(&object)) {
    auto copy = std::make_shared<MetadataFaceObject>(*face);
    if (mirrored) {
      if (copy->hasRollAngle) copy->rollAngle = mirroredAngle(copy->rollAngle);
      if (copy->hasYawAngle) copy->yawAngle = mirroredAngle(copy->yawAngle);
    }
    result = copy;
  } else if (auto* code = dynamic_cast<const MetadataMachineReadableCodeObject*>(&object)) {
    auto copy = std::make_shared<MetadataMachineReadableCodeObject>(*code);
    for (Point& p : copy->corners) p = map(p);
    result = copy;
  } else {
    result = std::make_shared<MetadataObject>(object);
  }
  result->bounds = bounds;
  return result;
}

}  // namespace kwq
