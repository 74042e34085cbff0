#include "kwq/capture_events.h"

#include <kwqimage/SyntheticCamera.h>

#include "kwq/truth_json.h"

namespace kwq::tool {
namespace {

// A rectangle in preview points back in the frame's pixels (top-left origin), undoing the
// preview's gravity and mirroring.
std::optional<Rect> framePixels(Rect r, const PreviewLayer& preview, size_t width, size_t height) {
  const Rect video = preview.videoRect();
  if (video.isNull() || !(video.size.width > 0) || !(video.size.height > 0)) return std::nullopt;
  double nx = (r.origin.x - video.origin.x) / video.size.width;
  const double ny = (r.origin.y - video.origin.y) / video.size.height;
  const double nw = r.size.width / video.size.width, nh = r.size.height / video.size.height;
  if (preview.isMirrored()) nx = 1.0 - nx - nw;
  return Rect{nx * width, ny * height, nw * width, nh * height};
}

}  // namespace

std::string codeTypeName(std::string_view type) {
  if (type == AVMetadataObjectTypePDF417Code) return "PDF417";
  if (type == AVMetadataObjectTypeQRCode) return "QR";
  return std::string(type);
}

FrameResults readFrameResults(const KWQVideoHelper& engine, const SampleBuffer& sample) {
  FrameResults r;
  const Rect face = engine.faceRect();
  r.hasFace = face != Rect::zero();
  r.hasYaw = engine.hasYawAngle();
  r.hasRoll = engine.hasRollAngle();
  r.yaw = engine.yawAngle();
  r.roll = engine.rollAngle();
  r.centred = r.hasFace && engine.isHeadCentered();
  if (r.hasFace)
    r.facePixels = framePixels(face, *engine.previewLayer(), sample.imageBuffer().width(),
                               sample.imageBuffer().height());
  r.card = engine.cardRect();
  return r;
}

Json rectJson(Rect r) {
  return Json::numbers({r.origin.x, r.origin.y, r.size.width, r.size.height});
}

void writeFrameEvent(std::ostream& out, uint64_t frame, const SampleBuffer& sample,
                     const FrameResults& r, const std::vector<CodeSeen>& codes, MediaTime found,
                     const SyntheticFrameTruth* truth) {
  Json event = Json::object();
  event.set("frame", frame);
  const auto index = syntheticFrameIndex(sample);
  event.set("source_frame", index ? Json(*index) : Json());
  const MediaTime stamp = sample.presentationTimeStamp();
  event.set("time", stamp.isValid() ? Json(stamp.seconds()) : Json());
  // Recognition trails the frames: the results above come from the frame of this time.
  event.set("metadata_time", found.isValid() ? Json(found.seconds()) : Json());
  event.set("face_frame_px", r.facePixels ? rectJson(*r.facePixels) : Json());
  event.set("yaw", r.yaw).set("roll", r.roll).set("has_yaw", r.hasYaw).set("has_roll", r.hasRoll);
  event.set("head_centred", r.centred);
  event.set("code", !codes.empty() && codes.back().text ? Json(*codes.back().text) : Json());
  event.set("code_type", codes.empty() ? Json() : Json(codes.back().type));
  event.set("card_rect", r.card != Rect::zero() ? rectJson(r.card) : Json());
  event.set("truth", truth ? truthJson(*truth) : Json());
  event.write(out);
  out << '\n';
}

}  // namespace kwq::tool
