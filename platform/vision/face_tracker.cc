#include <algorithm>

#include "platform/vision/face_detector.h"

namespace kwq::platform {

namespace {

constexpr double kSameFaceOverlap = 0.3;

double overlap(const Rect& a, const Rect& b) {
  const Rect common = a.intersection(b);
  if (common.isNull()) return 0.0;
  const double inter = common.width() * common.height();
  const double uni = a.width() * a.height() + b.width() * b.height() - inter;
  return uni > 0 ? inter / uni : 0.0;
}

}  // namespace

FaceTracker::FaceTracker(std::shared_ptr<const FaceDetector> detector, FaceAccuracy accuracy)
    : detector_(detector ? std::move(detector) : sharedFaceDetector()), accuracy_(accuracy) {}

std::vector<TrackedFace> FaceTracker::track(const Image& frame) {
  FaceDetectionOptions options;
  options.accuracy = accuracy_;
  options.estimateAngles = true;
  const std::vector<FaceFeature> faces = detector_->featuresInImage(frame, options);
  return update(faces, {static_cast<double>(frame.width()), static_cast<double>(frame.height())});
}

std::vector<TrackedFace> FaceTracker::update(const std::vector<FaceFeature>& faces,
                                             Size frameSize) {
  std::vector<TrackedFace> out;
  if (!(frameSize.width > 0) || !(frameSize.height > 0)) {
    known_.clear();
    return out;
  }
  // Each face takes the identifier of the previous frame's face it overlaps most, best
  // matches first, so two faces never share an identifier.
  struct Match {
    double score;
    size_t face, known;
  };
  std::vector<Match> matches;
  std::vector<Rect> bounds;
  for (size_t i = 0; i < faces.size(); ++i) {
    const Rect& b = faces[i].bounds;
    // Bottom-left origin pixels to top-left origin fractions of the frame.
    bounds.emplace_back(b.minX() / frameSize.width,
                        (frameSize.height - b.maxY()) / frameSize.height,
                        b.width() / frameSize.width, b.height() / frameSize.height);
    for (size_t k = 0; k < known_.size(); ++k) {
      const double score = overlap(bounds.back(), known_[k].bounds);
      if (score >= kSameFaceOverlap) matches.push_back({score, i, k});
    }
  }
  std::sort(matches.begin(), matches.end(),
            [](const Match& a, const Match& b) { return a.score > b.score; });
  std::vector<int64_t> ids(faces.size(), 0);
  std::vector<bool> taken(known_.size(), false);
  for (const Match& m : matches) {
    if (ids[m.face] != 0 || taken[m.known]) continue;
    ids[m.face] = known_[m.known].id;
    taken[m.known] = true;
  }

  std::vector<Known> next;
  for (size_t i = 0; i < faces.size(); ++i) {
    if (ids[i] == 0) ids[i] = nextID_++;
    const FaceFeature& f = faces[i];
    out.push_back({bounds[i], ids[i], f.hasYawAngle, f.yawAngle, f.hasRollAngle, f.rollAngle});
    next.push_back({bounds[i], ids[i]});
  }
  known_ = std::move(next);
  return out;
}

}  // namespace kwq::platform
