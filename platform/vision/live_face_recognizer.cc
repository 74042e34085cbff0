// The live face recogniser over dlib (HOG frontal faces, 68 landmarks) and OpenCV (reduction,
// template matching, solvePnP).
//
// Everything happens on the reduced "work" image: searches, following and landmarks. Faces
// are followed by normalised cross-correlation of a small, fixed-size picture of the face
// taken at its last search, so following costs the same whatever the face's size.

#include "platform/vision/live_face_recognizer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>
#include <optional>
#include <string>

#include <dlib/image_processing/frontal_face_detector.h>
#include <dlib/image_processing/shape_predictor.h>
#include <dlib/opencv/cv_image.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "kwqimage/DispatchQueue.h"
#include "kwqimage/Log.h"

#ifndef KWQ_DLIB_DATA_DIR
#define KWQ_DLIB_DATA_DIR "/usr/share/dlib"
#endif

namespace kwq::platform {
namespace {

// Side of the face picture that following matches, in pixels.
constexpr int kTemplateSide = 32;
// The window searched around a face's last place, in face widths on each side.
constexpr double kSearchMargin = 0.5;
// Normalised cross-correlation below which a followed face counts as lost.
constexpr double kLostScore = 0.55;
// Searches in a row that may miss a face still followed before it is dropped: the detector
// misses a face now and then (eyes closed, a turn), following bridges that.
constexpr int kMaxMissedSearches = 1;
// Faces of one frame whose overlap (intersection over union) reaches this are one face.
constexpr double kSameFace = 0.3;
// The detector's window is 80 x 80; smaller work images cannot hold a face.
constexpr int kMinWorkSide = 80;
// Tilt (degrees) beyond which landmarks are fitted a second time on an upright copy of the
// face: the landmark model was trained on nearly upright faces and underestimates tilt.
constexpr double kRefitTilt = 8.0;

// Loaded once per process; shape_predictor's operator() is const and reads only.
struct Landmarks {
  dlib::shape_predictor model;
  bool ok = false;
};

const Landmarks& landmarks() {
  static const Landmarks* shared = [] {
    auto* l = new Landmarks;
    try {
      dlib::deserialize(KWQ_DLIB_DATA_DIR "/shape_predictor_68_face_landmarks.dat") >> l->model;
      l->ok = l->model.num_parts() == 68;
    } catch (const std::exception&) {
      l->ok = false;
    }
    if (!l->ok)
      kwq::log("LiveFaceRecognizer: no landmark model in " KWQ_DLIB_DATA_DIR
               " (Debian package libdlib-data); faces carry no angles");
    return l;
  }();
  return *shared;
}

double overlap(const cv::Rect2d& a, const cv::Rect2d& b) {
  const double inter = (a & b).area();
  const double uni = a.area() + b.area() - inter;
  return uni > 0 ? inter / uni : 0.0;
}

cv::Point2d centre(const cv::Rect2d& r) {
  return {r.x + r.width / 2, r.y + r.height / 2};
}

struct Angles {
  bool known = false;
  double yaw = 0, roll = 0;
};

struct Track {
  int64_t id = 0;
  cv::Rect2d box;   // in the work image
  cv::Mat picture;  // kTemplateSide square, from the last search
  int missedSearches = 0;
  Angles angles;
  // Signed buckets of the last estimate (degrees; turn positive to the right, tilt clockwise).
  std::optional<double> turnBucket, tiltBucket;
};

// Picture of `box` scaled to the template's side; empty when the box leaves the image.
cv::Mat pictureOf(const cv::Mat& work, const cv::Rect2d& box) {
  const cv::Rect r = cv::Rect(box) & cv::Rect(0, 0, work.cols, work.rows);
  if (r.width < 8 || r.height < 8) return {};
  cv::Mat out;
  cv::resize(work(r), out, cv::Size(kTemplateSide, kTemplateSide), 0, 0, cv::INTER_AREA);
  return out;
}

// Moves the track to the best match of its picture near its last place; false when lost.
bool follow(const cv::Mat& work, Track& t) {
  if (t.picture.empty()) return false;
  const double scale = kTemplateSide / std::max(t.box.width, 1.0);
  const cv::Rect2d wanted(
      t.box.x - kSearchMargin * t.box.width, t.box.y - kSearchMargin * t.box.height,
      t.box.width * (1 + 2 * kSearchMargin), t.box.height * (1 + 2 * kSearchMargin));
  const cv::Rect window = cv::Rect(wanted) & cv::Rect(0, 0, work.cols, work.rows);
  const cv::Size scaled(static_cast<int>(std::lround(window.width * scale)),
                        static_cast<int>(std::lround(window.height * scale)));
  if (scaled.width < kTemplateSide || scaled.height < kTemplateSide) return false;
  cv::Mat region, score;
  cv::resize(work(window), region, scaled, 0, 0, cv::INTER_AREA);
  cv::matchTemplate(region, t.picture, score, cv::TM_CCOEFF_NORMED);
  double best = 0;
  cv::Point at;
  cv::minMaxLoc(score, nullptr, &best, nullptr, &at);
  if (!(best >= kLostScore)) return false;
  t.box.x = window.x + at.x / scale;
  t.box.y = window.y + at.y / scale;
  return true;
}

// Landmarks of the face in `box`, fitted on a copy of the surroundings turned by `tilt`
// degrees (clockwise as seen) about the box's centre so that a tilted face stands upright,
// then mapped back to the work image.
std::array<cv::Point2d, 68> fit(const Landmarks& lm, const cv::Mat& work, const cv::Rect2d& box,
                                double tilt) {
  std::array<cv::Point2d, 68> out;
  const auto rect = [](double x0, double y0, double x1, double y1) {
    return dlib::rectangle(std::lround(x0), std::lround(y0), std::lround(x1) - 1,
                           std::lround(y1) - 1);
  };
  if (tilt == 0.0) {
    // Upright: fitted in place, no copy.
    const dlib::full_object_detection shape =
        lm.model(dlib::cv_image<unsigned char>(work), rect(box.x, box.y, box.br().x, box.br().y));
    for (size_t i = 0; i < 68; ++i) {
      const dlib::point p = shape.part(static_cast<unsigned long>(i));
      out[i] = {static_cast<double>(p.x()), static_cast<double>(p.y())};
    }
    return out;
  }
  const cv::Point2d c = centre(box);
  const double side = std::max(box.width, box.height) * 1.5;
  const int n = std::max(16, static_cast<int>(std::lround(side)));
  // Upright crop of n x n centred on the face: rotating by -tilt undoes the tilt.
  cv::Matx23d toCrop = cv::getRotationMatrix2D(c, tilt, 1.0);
  toCrop(0, 2) += n / 2.0 - c.x;
  toCrop(1, 2) += n / 2.0 - c.y;
  cv::Mat crop;
  cv::warpAffine(work, crop, toCrop, cv::Size(n, n), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
  const double half = n / 2.0;
  const dlib::full_object_detection shape = lm.model(
      dlib::cv_image<unsigned char>(crop), rect(half - box.width / 2, half - box.height / 2,
                                                half + box.width / 2, half + box.height / 2));
  cv::Matx23d back;
  cv::invertAffineTransform(toCrop, back);
  for (size_t i = 0; i < 68; ++i) {
    const dlib::point p = shape.part(static_cast<unsigned long>(i));
    const double x = static_cast<double>(p.x()), y = static_cast<double>(p.y());
    out[i] = {back(0, 0) * x + back(0, 1) * y + back(0, 2),
              back(1, 0) * x + back(1, 1) * y + back(1, 2)};
  }
  return out;
}

cv::Point2d mean(const std::array<cv::Point2d, 68>& p, size_t from, size_t to) {
  cv::Point2d sum;
  for (size_t i = from; i < to; ++i) sum += p[i];
  return sum / static_cast<double>(to - from);
}

// Tilt of the line from the left to the right eye as seen, clockwise positive (y is down).
double tiltOf(const std::array<cv::Point2d, 68>& p) {
  const cv::Point2d left = mean(p, 36, 42), right = mean(p, 42, 48);
  return std::atan2(right.y - left.y, right.x - left.x) * 180.0 / CV_PI;
}

// Turn of the head about the vertical axis, positive when the nose points to the image's
// right, from a generic face (x right, y down, z away from the camera, nose tip at the origin)
// posed onto six landmarks.
std::optional<double> turnOf(const std::array<cv::Point2d, 68>& p, cv::Size image) {
  static const std::vector<cv::Point3d> model = {
      {0, 0, 0},          // nose tip (30)
      {0, 330, 65},       // chin (8)
      {-225, -170, 135},  // outer corner of the left eye as seen (36)
      {225, -170, 135},   // outer corner of the right eye as seen (45)
      {-150, 150, 125},   // left mouth corner as seen (48)
      {150, 150, 125},    // right mouth corner as seen (54)
  };
  const std::vector<cv::Point2d> seen = {p[30], p[8], p[36], p[45], p[48], p[54]};
  const double f = std::max(image.width, image.height);
  const cv::Matx33d camera(f, 0, image.width / 2.0, 0, f, image.height / 2.0, 0, 0, 1);
  cv::Mat rvec, tvec;
  if (!cv::solvePnP(model, seen, camera, cv::noArray(), rvec, tvec)) return std::nullopt;
  cv::Matx33d rot;
  cv::Rodrigues(rvec, rot);
  // The face looks along -z of the model; where that direction ends up says the turn.
  const double fx = -rot(0, 2), fz = -rot(2, 2);
  const double turn = std::atan2(fx, -fz) * 180.0 / CV_PI;
  return std::isfinite(turn) ? std::optional<double>(turn) : std::nullopt;
}

// The bucket `step` degrees wide nearest to `value`, except that a face keeps its previous
// bucket until the value has gone `kSettle` degrees past the bucket's edge, so estimates near
// an edge do not make the reported angle flicker from frame to frame.
constexpr double kSettle = 7.5;

double bucket(double value, double step, std::optional<double> previous) {
  if (previous && std::abs(value - *previous) < step / 2 + kSettle) return *previous;
  return std::round(value / step) * step;
}

// Signed turn bucket (-90..90) to the platform's yaw.
double yawOf(double turnBucket) {
  const double clamped = std::clamp(turnBucket, -90.0, 90.0);
  // Adding a full turn first keeps the frontal bucket at +0 rather than -0.
  return std::fmod(clamped + 360.0, 360.0);
}

// Signed tilt bucket to the platform's roll in [0, 360).
double rollOf(double tiltBucket) {
  return std::fmod(tiltBucket + 360.0, 360.0);
}

// Estimates the track's angles on `work`; forgets them when landmarks cannot be fitted.
void estimateAngles(const cv::Mat& work, Track& t) {
  const Landmarks& lm = landmarks();
  std::optional<double> turn;
  double tilt = 0;
  if (lm.ok) {
    std::array<cv::Point2d, 68> points = fit(lm, work, t.box, 0.0);
    tilt = tiltOf(points);
    if (std::abs(tilt) > kRefitTilt) {
      points = fit(lm, work, t.box, tilt);
      tilt = tiltOf(points);
    }
    turn = turnOf(points, work.size());
  }
  if (!turn || !std::isfinite(tilt)) {
    t.angles = {};
    t.turnBucket.reset();
    t.tiltBucket.reset();
    return;
  }
  t.turnBucket = bucket(*turn, 45.0, t.turnBucket);
  t.tiltBucket = bucket(tilt, 30.0, t.tiltBucket);
  t.angles = {true, yawOf(*t.turnBucket), rollOf(*t.tiltBucket)};
}

}  // namespace

struct LiveFaceRecognizer::State {
  LiveFaceOptions options;
  dlib::frontal_face_detector detector = dlib::get_frontal_face_detector();
  std::vector<Track> tracks;
  cv::Size frameSize;
  int untilSearch = 0;  // frames left before the next full search; the first frame searches
  int64_t nextID = 1;
  cv::Mat work;

  std::vector<cv::Rect2d> search() {
    std::vector<dlib::rectangle> found = detector(dlib::cv_image<unsigned char>(work));
    std::vector<cv::Rect2d> out;
    for (const dlib::rectangle& r : found)
      out.emplace_back(static_cast<double>(r.left()), static_cast<double>(r.top()),
                       static_cast<double>(r.width()), static_cast<double>(r.height()));
    return out;
  }

  void step(const cv::Mat& gray) {
    if (gray.size() != frameSize) {
      tracks.clear();
      frameSize = gray.size();
      untilSearch = 0;
    }
    const int shortSide = std::min(gray.cols, gray.rows);
    const double scale =
        std::min(1.0, std::max(1, options.detectionShortSide) / static_cast<double>(shortSide));
    if (scale < 1.0)
      cv::resize(gray, work, cv::Size(), scale, scale, cv::INTER_AREA);
    else
      work = gray;
    if (std::min(work.cols, work.rows) < kMinWorkSide) {
      tracks.clear();
      return;
    }

    bool lost = false;
    for (auto it = tracks.begin(); it != tracks.end();) {
      if (follow(work, *it)) {
        ++it;
      } else {
        lost = true;
        it = tracks.erase(it);
      }
    }
    if (untilSearch <= 0 || lost) {
      untilSearch = std::max(1, options.detectionInterval) - 1;
      merge(search());
    } else {
      --untilSearch;
    }
    if (options.estimateAngles)
      for (Track& t : tracks) estimateAngles(work, t);
  }

  // Found faces take the identifiers of the followed faces they overlap, best overlaps first;
  // followed faces the search missed survive a few searches.
  void merge(const std::vector<cv::Rect2d>& found) {
    struct Pair {
      double score;
      size_t face, track;
    };
    std::vector<Pair> pairs;
    for (size_t i = 0; i < found.size(); ++i)
      for (size_t k = 0; k < tracks.size(); ++k) {
        double score = overlap(found[i], tracks[k].box);
        if (score < kSameFace && found[i].contains(centre(tracks[k].box)) &&
            tracks[k].box.contains(centre(found[i])))
          score = kSameFace;
        if (score >= kSameFace) pairs.push_back({score, i, k});
      }
    std::sort(pairs.begin(), pairs.end(),
              [](const Pair& a, const Pair& b) { return a.score > b.score; });
    std::vector<int64_t> ids(found.size(), 0);
    std::vector<bool> taken(tracks.size(), false);
    for (const Pair& p : pairs) {
      if (ids[p.face] != 0 || taken[p.track]) continue;
      ids[p.face] = tracks[p.track].id;
      taken[p.track] = true;
    }
    std::vector<Track> next;
    for (size_t i = 0; i < found.size(); ++i) {
      Track t;
      t.id = ids[i] != 0 ? ids[i] : nextID++;
      if (ids[i] != 0)
        for (const Track& old : tracks)
          if (old.id == ids[i]) {
            t.turnBucket = old.turnBucket;
            t.tiltBucket = old.tiltBucket;
          }
      t.box = found[i];
      t.picture = pictureOf(work, t.box);
      next.push_back(std::move(t));
    }
    for (size_t k = 0; k < tracks.size(); ++k) {
      if (taken[k] || tracks[k].missedSearches >= kMaxMissedSearches) continue;
      // A followed face inside a found one is the same face.
      bool covered = false;
      for (const cv::Rect2d& f : found) covered = covered || f.contains(centre(tracks[k].box));
      if (covered) continue;
      ++tracks[k].missedSearches;
      next.push_back(std::move(tracks[k]));
    }
    tracks = std::move(next);
  }
};

LiveFaceRecognizer::LiveFaceRecognizer(LiveFaceOptions options) : d_(std::make_unique<State>()) {
  d_->options = options;
  // The landmark model (about 100 MB to read) is first needed when a face is found; reading it
  // on the global pool as soon as faces are wanted keeps that first face from waiting for it.
  static std::once_flag preload;
  std::call_once(preload, [] { DispatchQueue::global().async([] { landmarks(); }); });
}

LiveFaceRecognizer::~LiveFaceRecognizer() = default;

bool LiveFaceRecognizer::landmarksAvailable() {
  return landmarks().ok;
}

std::vector<std::shared_ptr<const MetadataFaceObject>> LiveFaceRecognizer::recognize(
    const SampleBuffer& frame) {
  std::vector<std::shared_ptr<const MetadataFaceObject>> out;
  const PixelBuffer& buffer = frame.imageBuffer();
  const uint32_t format = buffer.pixelFormat();
  const bool biPlanar = format == kPixelFormat420f || format == kPixelFormat420v;
  if (!biPlanar && format != kPixelFormatBGRA) return out;
  if (!buffer.lockBaseAddress(kPixelBufferLockReadOnly)) return out;
  try {
    const uint8_t* base = buffer.baseAddressOfPlane(0);
    const size_t width = buffer.widthOfPlane(0), height = buffer.heightOfPlane(0);
    const size_t bpr = buffer.bytesPerRowOfPlane(0);
    const size_t pixelBytes = biPlanar ? 1 : 4;
    constexpr size_t kMaxSide = 1 << 15;
    if (base && width > 0 && height > 0 && width <= kMaxSide && height <= kMaxSide &&
        bpr / pixelBytes >= width) {
      const cv::Mat view(static_cast<int>(height), static_cast<int>(width),
                         biPlanar ? CV_8UC1 : CV_8UC4, const_cast<uint8_t*>(base), bpr);
      cv::Mat gray;
      if (biPlanar)
        gray = view;
      else
        cv::cvtColor(view, gray, cv::COLOR_BGRA2GRAY);
      d_->step(gray);
      // The work image may be the frame's own memory; forget it before unlocking.
      d_->work.release();
      const double sx = static_cast<double>(width), sy = static_cast<double>(height);
      const double scale =
          std::min(1.0, std::max(1, d_->options.detectionShortSide) / std::min(sx, sy));
      for (const Track& t : d_->tracks) {
        auto face = std::make_shared<MetadataFaceObject>();
        face->type = std::string(AVMetadataObjectTypeFace);
        // Work-image pixels to fractions of the frame, clipped to it.
        const double x0 = std::clamp(t.box.x / scale / sx, 0.0, 1.0);
        const double y0 = std::clamp(t.box.y / scale / sy, 0.0, 1.0);
        const double x1 = std::clamp((t.box.x + t.box.width) / scale / sx, 0.0, 1.0);
        const double y1 = std::clamp((t.box.y + t.box.height) / scale / sy, 0.0, 1.0);
        if (!(x1 > x0) || !(y1 > y0)) continue;
        face->bounds = Rect(x0, y0, x1 - x0, y1 - y0);
        face->time = frame.presentationTimeStamp();
        face->duration = frame.duration();
        face->faceID = t.id;
        face->hasYawAngle = face->hasRollAngle = t.angles.known;
        face->yawAngle = t.angles.known ? t.angles.yaw : 0.0;
        face->rollAngle = t.angles.known ? t.angles.roll : 0.0;
        out.push_back(std::move(face));
      }
      std::stable_sort(out.begin(), out.end(), [](const auto& a, const auto& b) {
        return a->bounds.width() * a->bounds.height() > b->bounds.width() * b->bounds.height();
      });
    }
  } catch (const std::exception&) {
    out.clear();
    d_->tracks.clear();
    d_->work.release();
  }
  buffer.unlockBaseAddress(kPixelBufferLockReadOnly);
  return out;
}

}  // namespace kwq::platform
