#include "platform/vision/metadata_recognizer.h"

#include <algorithm>
#include <memory>

#include "platform/vision/code_reader.h"
#include "platform/vision/live_face_recognizer.h"

namespace kwq::platform {
namespace {

// A gap in time stamps this long means the faces seen before are no evidence for this frame.
constexpr double kTrackingGapSeconds = 1.0;

struct FaceStage {
  std::unique_ptr<LiveFaceRecognizer> recognizer;
  double lastTime = 0.0;
};

}  // namespace

MetadataOutput::Impl::Recognizer makeMetadataRecognizer() {
  auto faces = std::make_shared<FaceStage>();
  return [faces](const SampleBuffer& frame, const std::vector<std::string>& types) {
    MetadataObjects found;
    const bool wantFaces =
        std::find(types.begin(), types.end(), AVMetadataObjectTypeFace) != types.end();
    if (wantFaces) {
      const MediaTime stamp = frame.presentationTimeStamp();
      const double t = stamp.seconds();
      if (faces->recognizer && stamp.isValid() &&
          (t < faces->lastTime || t - faces->lastTime > kTrackingGapSeconds))
        faces->recognizer.reset();
      if (stamp.isValid()) faces->lastTime = t;
      if (!faces->recognizer) faces->recognizer = std::make_unique<LiveFaceRecognizer>();
      for (auto& face : faces->recognizer->recognize(frame)) found.push_back(face);
    } else {
      faces->recognizer.reset();
    }
    MetadataObjects codes = readCodes(frame, types);
    found.insert(found.end(), std::make_move_iterator(codes.begin()),
                 std::make_move_iterator(codes.end()));
    return found;
  };
}

}  // namespace kwq::platform
