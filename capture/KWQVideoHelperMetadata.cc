// The metadata step: faces and codes found in a frame arrive here on the main queue. One walk
// over the objects reads every code (text, outline, rectangle) and picks the widest face; the
// face then sets the angles, the centring verdict and the face box. Results are engine fields
// that the per-frame step (KWQVideoHelperFrames.cc) hands to the delegate.

#include <memory>
#include <utility>

#include "capture/KWQVideoHelperState.h"

namespace kwq {
namespace {

// The face box's border: 225, 201, 14 as single-precision fractions, then widened.
constexpr Color kFaceBoxColor{static_cast<double>(225.0f / 255.0f),
                              static_cast<double>(201.0f / 255.0f),
                              static_cast<double>(14.0f / 255.0f), 1.0};

// The centre box sits this far inside the preview: 30 points off each side, 50 off the top and
// the bottom.
constexpr double kCenterInsetX = 30.0;
constexpr double kCenterInsetY = 50.0;

}  // namespace

Point KWQVideoHelper::pointFromArray(const std::vector<Point>& array, size_t index) {
  return index < array.size() ? array[index] : Point::zero();
}

void KWQVideoHelper::clearFaceData() {
  d_->set(&State::faceRect, Rect::zero());
}

void KWQVideoHelper::clearBarcodeData() {
  std::shared_ptr<ShapeLayer> outline;
  {
    std::lock_guard lock(d_->mutex);
    d_->barcodeRect = Rect::zero();
    d_->parsedData = std::string();
    outline = std::move(d_->barcodeLineLayer);
    d_->barcodeLineLayer = nullptr;
  }
  if (outline) outline->removeFromSuperlayer();
}

void KWQVideoHelper::captureOutput(MetadataOutput&, const MetadataObjects& metadataObjects,
                                   CaptureConnection&) {
  State& d = *d_;
  const std::shared_ptr<PreviewLayer> preview = d.previewLayer;
  // Blocks queued from here keep the engine alive until they have run.
  const std::shared_ptr<KWQVideoHelper> self = shared_from_this();
  auto onMain = [&self](auto work) { DispatchQueue::main().async([self, work] { work(*self); }); };
  auto setCenterColor = [](KWQVideoHelper& engine, Color color) {
    if (auto center = engine.centerLayer()) center->setBorderColor(color);
  };

  // Every callback starts without a code rectangle: only a code outlined now sets one.
  d.set(&State::barcodeRect, Rect::zero());

  // One walk: codes are read as they come (the last one wins); faces compete on the width of
  // their untransformed bounds, strictly wider winning, so the first of equals stays and a face
  // of zero width is never chosen.
  const MetadataFaceObject* chosen = nullptr;
  double bestWidth = 0.0;
  for (const auto& object : metadataObjects) {
    if (!object) continue;
    if (auto* code = dynamic_cast<const MetadataMachineReadableCodeObject*>(object.get())) {
      auto moved = preview ? std::dynamic_pointer_cast<MetadataMachineReadableCodeObject>(
                                 std::shared_ptr<MetadataObject>(
                                     preview->transformedMetadataObjectForMetadataObject(*code)))
                           : nullptr;
      d.set(&State::parsedData, moved ? moved->stringValue : std::nullopt);
      if (moved && moved->corners.size() == 4 && d.showBarcodeBoundingBox) {
        const Point p0 = pointFromArray(moved->corners, 0);
        const Point p1 = pointFromArray(moved->corners, 1);
        const Point p2 = pointFromArray(moved->corners, 2);
        const Point p3 = pointFromArray(moved->corners, 3);
        // Four separate segments gathered into the first: P3-P2, P3-P0, P0-P1, P2-P1.
        Path outline;
        outline.moveTo(p3);
        outline.addLineTo(p2);
        Path second, third, fourth;
        second.moveTo(p3);
        second.addLineTo(p0);
        third.moveTo(p0);
        third.addLineTo(p1);
        fourth.moveTo(p2);
        fourth.addLineTo(p1);
        outline.addPath(second);
        outline.addPath(third);
        outline.addPath(fourth);
        std::shared_ptr<ShapeLayer> line = d.get(&State::barcodeLineLayer);
        if (line) line->setPath(std::move(outline));
        // Taken from three corners as they stand: a rotated code gives a negative width or
        // height, which the host sees as such.
        d.set(&State::barcodeRect, Rect{p3.x, p3.y, p2.x - p3.x, p0.y - p3.y});
      }
    } else if (auto* face = dynamic_cast<const MetadataFaceObject*>(object.get())) {
      if (face->bounds.size.width > bestWidth) {
        chosen = face;
        bestWidth = face->bounds.size.width;
      }
    }
  }

  if (!chosen) {
    onMain([setCenterColor](KWQVideoHelper& e) { setCenterColor(e, Color::redColor()); });
    d.set(&State::faceRect, Rect::zero());
    return;
  }
  const int64_t faceNumber = chosen->faceID;

  // Into preview points. Without a transform (no preview, or no video size yet) the face has
  // no rectangle and no angles.
  std::shared_ptr<const MetadataFaceObject> moved;
  if (preview)
    moved =
        std::dynamic_pointer_cast<const MetadataFaceObject>(std::shared_ptr<const MetadataObject>(
            preview->transformedMetadataObjectForMetadataObject(*chosen)));
  const Rect r = moved ? moved->bounds : Rect::zero();
  const MetadataFaceObject none;
  const MetadataFaceObject& angles = moved ? *moved : none;

  // The roll flag follows the yaw flag on purpose: the roll is tested exactly when the face
  // carries a yaw angle.
  d.yawAngle = angles.yawAngle;
  d.hasRollAngle = angles.hasYawAngle;
  d.rollAngle = angles.rollAngle;
  d.hasYawAngle = angles.hasYawAngle;

  if (d.showCenterBox) {
    const std::shared_ptr<Layer> center = d.get(&State::centerLayer);
    const Rect previewFrame = preview ? preview->frame() : Rect::zero();
    if (center) center->setFrame(previewFrame.insetBy(kCenterInsetX, kCenterInsetY));
    d.isHeadCentered = false;
    const Rect box = center ? center->frame() : Rect::zero();
    if (!box.contains(r)) {
      onMain([setCenterColor](KWQVideoHelper& e) { setCenterColor(e, Color::redColor()); });
    } else if (d.hasRollAngle && d.rollAngle != 0.0) {
      // Any tilt fails at once, ahead of colours queued by earlier callbacks.
      if (center) center->setBorderColor(Color::redColor());
    } else if (d.hasYawAngle && d.yawAngle != 0.0) {
      if (center) center->setBorderColor(Color::redColor());
    } else if (r.size.width > d.minHeadSize && r.size.width < d.maxHeadSize) {
      onMain([setCenterColor](KWQVideoHelper& e) { setCenterColor(e, Color::greenColor()); });
      d.isHeadCentered = true;
    } else {
      onMain([setCenterColor](KWQVideoHelper& e) { setCenterColor(e, Color::redColor()); });
    }
  }

  if (d.showFaceBoundingBox) {
    bool created = false;
    {
      std::lock_guard lock(d.mutex);
      if (!d.primaryLayer) {
        // Always a fresh box (a layer stored under this face number earlier is not reused);
        // the map keeps every box made, under the number of the face it was made for.
        auto box = Layer::layer();
        box->setBorderWidth(1.0);
        box->setBorderColor(kFaceBoxColor);
        d.primaryLayer = box;
        d.avfFaceLayers[faceNumber] = box;
        created = true;
      }
    }
    // Attached before it is placed: both blocks go to the same queue in this order.
    if (created) {
      onMain([](KWQVideoHelper& e) {
        auto box = e.primaryLayer();
        if (box && e.state().previewLayer) e.state().previewLayer->addSublayer(box);
      });
    }
    onMain([r](KWQVideoHelper& e) {
      if (auto box = e.primaryLayer()) box->setFrame(r);
    });
  } else if (preview) {
    onMain([](KWQVideoHelper& e) {
      if (auto box = e.primaryLayer()) box->removeFromSuperlayer();
    });
  }

  d.set(&State::faceRect, r);
}

}  // namespace kwq
