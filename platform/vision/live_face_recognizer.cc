// The live face recogniser over dlib (HOG frontal faces, 68 landmarks) and OpenCV (scaling,
// template matching, solvePnP).
//
// Everything happens on the frame's gray pixels: the search pieces and the confirming windows
// are scaled copies of parts of it, landmarks are fitted on it directly. Faces are followed by
// normalised cross-correlation of a small, fixed-size picture of the face taken when the
// detector last found it, so following costs the same whatever the face's size.

#include "platform/vision/live_face_recognizer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>
#include <optional>
#include <string>

#include <dlib/image_processing/frontal_face_detector.h>
#include <dlib/image_processing/object_detector.h>
#include <dlib/image_processing/scan_fhog_pyramid.h>
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
// Faces of one frame whose overlap (intersection over union) reaches this are one face.
constexpr double kSameFace = 0.3;
// The detector's window: the narrowest face it finds at a pyramid level is about this wide
// (in that level's pixels), and its pyramid steps by 5/6.
constexpr double kWindow = 80;
constexpr double kLevelStep = 5.0 / 6.0;
// Levels of the fine search at full resolution; the half-size search takes over from the
// next level down (the step from 0.58 to 0.5 is within the pyramid's own 5/6).
constexpr int kFineLevels = 4;
// Overlap of neighbouring columns of one level, in level pixels: a window and some slack.
constexpr int kColumnOverlap = 96;
// Narrowest face searched when the options leave it open: 1/16 of the frame's width, never
// below 40 pixels.
constexpr double kMinFaceFraction = 1.0 / 16.0;
constexpr double kMinFaceFloor = 40;
// The detector frames one face a little differently from frame to frame and from level to
// level; a followed face is let go when its detected width falls below the narrowest face
// by more than that.
constexpr double kFloorSlack = 0.85;
// The confirming window around a followed face: this many face widths on each side, scaled
// so that the face is kConfirmFaceSide pixels wide, searched on kConfirmLevels levels (faces
// from about 0.7 to 1.4 times the face's last width).
constexpr double kConfirmMargin = 0.35;
constexpr double kConfirmFaceSide = 100;
constexpr int kConfirmLevels = 4;
// A followed face is confirmed every this many frames while the confirmations succeed, on
// every frame while they fail; after this many failures in a row it is let go. The frontal
// detector misses a face now and then (eyes closed, a turn): following bridges that.
constexpr int kConfirmEvery = 2;
constexpr int kMaxMisses = 5;
// Weight of a new detection's width in a followed face's width.
constexpr double kSizeWeight = 0.35;
// A face new to the search must be found again within this many frames to be reported.
constexpr int kNewFaceFrames = 3;
// Landmarks are fitted on a followed face every this many frames (the first time on the frame
// it is first reported); in between it keeps the angles of its last fit. Angles come in steps
// of 30 and 45 degrees, which a head seldom crosses in a frame's time, and the fits were the
// largest cost after the search itself.
constexpr int kAnglesEvery = 2;
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

// A detection names a followed face when they overlap enough, or when one's centre lies in
// the other and their widths are alike (the detector frames a face differently at different
// pyramid levels; a face of another size where a face was is another face).
bool sameFace(const cv::Rect2d& found, const cv::Rect2d& followed) {
  if (overlap(found, followed) >= kSameFace) return true;
  const double ratio = found.width / std::max(followed.width, 1.0);
  return ratio > 1 / 1.5 && ratio < 1.5 &&
         (found.contains(centre(followed)) || followed.contains(centre(found)));
}

struct Angles {
  bool known = false;
  double yaw = 0, roll = 0;
};

struct Track {
  int64_t id = 0;
  cv::Rect2d box;          // in frame pixels
  cv::Mat picture;         // kTemplateSide square, from the last detection
  bool confirmed = false;  // found again after the search first found it: reported
  int age = 0;             // frames since the search first found it
  int misses = 0;          // confirmations failed in a row
  int sinceSeen = 0;       // frames since the detector last found it
  int untilConfirm = 0;    // frames before the next confirmation
  int untilAngles = 0;     // frames before landmarks are fitted again
  Angles angles;
  // Signed buckets of the last estimate (degrees; turn positive to the right, tilt clockwise).
  std::optional<double> turnBucket, tiltBucket;
  // The tilt measured by the last fit, which the next fit starts from.
  double lastTilt = 0;
};

// Picture of `box` scaled to the template's side; empty when the box leaves the image.
cv::Mat pictureOf(const cv::Mat& gray, const cv::Rect2d& box) {
  const cv::Rect r = cv::Rect(box) & cv::Rect(0, 0, gray.cols, gray.rows);
  if (r.width < 8 || r.height < 8) return {};
  cv::Mat out;
  cv::resize(gray(r), out, cv::Size(kTemplateSide, kTemplateSide), 0, 0, cv::INTER_AREA);
  return out;
}

// Moves the track to the best match of its picture near its last place; false when lost.
bool follow(const cv::Mat& gray, Track& t) {
  if (t.picture.empty()) return false;
  const double scale = kTemplateSide / std::max(t.box.width, 1.0);
  const cv::Rect2d wanted(
      t.box.x - kSearchMargin * t.box.width, t.box.y - kSearchMargin * t.box.height,
      t.box.width * (1 + 2 * kSearchMargin), t.box.height * (1 + 2 * kSearchMargin));
  const cv::Rect window = cv::Rect(wanted) & cv::Rect(0, 0, gray.cols, gray.rows);
  const cv::Size scaled(static_cast<int>(std::lround(window.width * scale)),
                        static_cast<int>(std::lround(window.height * scale)));
  if (scaled.width < kTemplateSide || scaled.height < kTemplateSide) return false;
  cv::Mat region, score;
  cv::resize(gray(window), region, scaled, 0, 0, cv::INTER_AREA);
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
// then mapped back to the frame.
std::array<cv::Point2d, 68> fit(const Landmarks& lm, const cv::Mat& gray, const cv::Rect2d& box,
                                double tilt) {
  std::array<cv::Point2d, 68> out;
  const auto rect = [](double x0, double y0, double x1, double y1) {
    return dlib::rectangle(std::lround(x0), std::lround(y0), std::lround(x1) - 1,
                           std::lround(y1) - 1);
  };
  if (tilt == 0.0) {
    // Upright: fitted in place, no copy.
    const dlib::full_object_detection shape =
        lm.model(dlib::cv_image<unsigned char>(gray), rect(box.x, box.y, box.br().x, box.br().y));
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
  cv::warpAffine(gray, crop, toCrop, cv::Size(n, n), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
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

// Estimates the track's angles on `gray`; forgets them when landmarks cannot be fitted.
void estimateAngles(const cv::Mat& gray, Track& t) {
  const Landmarks& lm = landmarks();
  std::optional<double> turn;
  double tilt = 0;
  if (lm.ok) {
    // A followed face is fitted straight away on a copy turned by its last tilt: one fit where
    // a tilted face met afresh needs two.
    const double start = std::abs(t.lastTilt) > kRefitTilt ? t.lastTilt : 0.0;
    std::array<cv::Point2d, 68> points = fit(lm, gray, t.box, start);
    tilt = tiltOf(points);
    if (std::abs(tilt - start) > kRefitTilt) {
      points = fit(lm, gray, t.box, tilt);
      tilt = tiltOf(points);
    }
    turn = turnOf(points, gray.size());
    t.lastTilt = std::isfinite(tilt) ? tilt : 0.0;
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

using Detector = dlib::object_detector<dlib::scan_fhog_pyramid<dlib::pyramid_down<6>>>;

// dlib's frontal-face detector searching at most `levels` pyramid levels (0: all).
Detector faceDetector(unsigned long levels) {
  static const Detector* prototype = new Detector(dlib::get_frontal_face_detector());
  if (levels == 0) return *prototype;
  dlib::scan_fhog_pyramid<dlib::pyramid_down<6>> scanner;
  scanner.copy_configuration(prototype->get_scanner());
  scanner.set_max_pyramid_levels(levels);
  std::vector<Detector::feature_vector_type> weights;
  for (unsigned long i = 0; i < prototype->num_detectors(); ++i)
    weights.push_back(prototype->get_w(i));
  return Detector(scanner, prototype->get_overlap_tester(), weights);
}

// One piece of the search: `area` of the frame scaled by `scale`, searched on one pyramid
// level or, when `pyramid`, on all.
struct Piece {
  cv::Rect area;
  double scale = 1;
  bool pyramid = false;
  double cost = 0;  // pixels the detector looks at, all levels counted
};

// The pieces of one full search of a frame of `size` for faces from `minFace` pixels wide,
// dealt out to `slots` frames so that every frame carries about the same cost.
std::vector<std::vector<Piece>> planSearch(cv::Size size, double minFace, int slots) {
  const double base = kWindow / minFace;  // the finest level's scale
  std::vector<Piece> pieces;
  // The half-size search of all levels finds faces from twice the narrowest up; its cost
  // counts every level of the pyramid (the sum of (25/36)^k).
  const double coarse = base / 2;
  if (std::min(size.width, size.height) * coarse >= kWindow) {
    const double area = size.area() * coarse * coarse;
    pieces.push_back({cv::Rect({0, 0}, size), coarse, true, area / (1 - kLevelStep * kLevelStep)});
  }
  double total = pieces.empty() ? 0.0 : pieces[0].cost;
  for (int k = 0; k < kFineLevels; ++k)
    total += size.area() * std::pow(base * std::pow(kLevelStep, k), 2);
  const double perSlot = total / std::max(1, slots);
  for (int k = 0; k < kFineLevels; ++k) {
    const double scale = base * std::pow(kLevelStep, k);
    const double width = size.width * scale, height = size.height * scale;
    if (std::min(width, height) < kWindow) continue;
    // Columns of the level, each no dearer than a frame's share, overlapping by a window.
    const int columns = std::clamp(static_cast<int>(std::ceil(width * height / perSlot)), 1,
                                   std::max(1, static_cast<int>(width / (2 * kColumnOverlap))));
    const double step = (width - kColumnOverlap) / columns;
    for (int c = 0; c < columns; ++c) {
      const double x0 = c * step, x1 = std::min(width, (c + 1) * step + kColumnOverlap);
      const int fx0 = static_cast<int>(std::floor(x0 / scale));
      const int fx1 = std::min(size.width, static_cast<int>(std::ceil(x1 / scale)));
      pieces.push_back(
          {cv::Rect(fx0, 0, fx1 - fx0, size.height), scale, false, (x1 - x0) * height});
    }
  }
  // Dearest first into the cheapest frame so far.
  std::stable_sort(pieces.begin(), pieces.end(),
                   [](const Piece& a, const Piece& b) { return a.cost > b.cost; });
  std::vector<std::vector<Piece>> plan(static_cast<size_t>(std::max(1, slots)));
  std::vector<double> load(plan.size(), 0.0);
  for (const Piece& p : pieces) {
    const size_t at =
        static_cast<size_t>(std::min_element(load.begin(), load.end()) - load.begin());
    plan[at].push_back(p);
    load[at] += p.cost;
  }
  return plan;
}

struct Found {
  cv::Rect2d box;  // in frame pixels
  double score = 0;
};

}  // namespace

struct LiveFaceRecognizer::State {
  LiveFaceOptions options;
  Detector wholeDetector = faceDetector(0);
  Detector levelDetector = faceDetector(1);
  Detector confirmDetector = faceDetector(kConfirmLevels);
  std::vector<Track> tracks;
  cv::Size frameSize;
  double minFace = 0;
  std::vector<std::vector<Piece>> plan;
  size_t nextSlot = 0;
  size_t coarseSlot = 0;  // the frame of the search that looks for the larger faces
  int64_t nextID = 1;
  cv::Mat scaled;  // scratch for scaled copies

  // Faces in `area` of `gray` scaled by `scale`, in frame pixels.
  std::vector<Found> detect(Detector& detector, const cv::Mat& gray, cv::Rect area, double scale) {
    area &= cv::Rect(0, 0, gray.cols, gray.rows);
    const cv::Size size(static_cast<int>(std::lround(area.width * scale)),
                        static_cast<int>(std::lround(area.height * scale)));
    if (size.width < kWindow || size.height < kWindow) return {};
    const cv::Mat part = gray(area);
    const cv::Mat* image = &part;
    if (size != area.size()) {
      cv::resize(part, scaled, size, 0, 0, scale < 1 ? cv::INTER_AREA : cv::INTER_LINEAR);
      image = &scaled;
    }
    std::vector<std::pair<double, dlib::rectangle>> hits;
    detector(dlib::cv_image<unsigned char>(*image), hits);
    std::vector<Found> out;
    const double sx = static_cast<double>(area.width) / size.width;
    const double sy = static_cast<double>(area.height) / size.height;
    for (const auto& [score, r] : hits)
      out.push_back(
          {cv::Rect2d(area.x + r.left() * sx, area.y + r.top() * sy,
                      static_cast<double>(r.width()) * sx, static_cast<double>(r.height()) * sy),
           score});
    return out;
  }

  void restart(cv::Size size) {
    tracks.clear();
    frameSize = size;
    minFace = options.minFaceWidth > 0 ? options.minFaceWidth
                                       : std::max(kMinFaceFloor, size.width * kMinFaceFraction);
    plan = planSearch(size, minFace, std::max(1, options.searchFrames));
    coarseSlot = 0;
    for (size_t i = 0; i < plan.size(); ++i)
      for (const Piece& p : plan[i])
        if (p.pyramid) coarseSlot = i;
    nextSlot = coarseSlot;
  }

  void step(const cv::Mat& gray) {
    if (gray.size() != frameSize) restart(gray.size());

    // Follow and confirm the faces already known.
    for (auto it = tracks.begin(); it != tracks.end();) {
      Track& t = *it;
      ++t.age;
      ++t.sinceSeen;
      bool keep = follow(gray, t);
      if (keep && (--t.untilConfirm <= 0 || !t.confirmed)) {
        const std::vector<Found> found = confirm(gray, t);
        if (!found.empty()) {
          refresh(gray, t, found.front().box);
          t.confirmed = true;
        } else {
          ++t.misses;
          t.untilConfirm = 0;
        }
      }
      keep = keep && t.misses <= kMaxMisses && t.box.width >= kFloorSlack * minFace &&
             (t.confirmed || t.age <= kNewFaceFrames);
      // A face lost (a cut, a face leaving) most often makes way for a large one: the search
      // goes on with its larger faces next.
      if (!keep && t.confirmed) nextSlot = coarseSlot;
      it = keep ? it + 1 : tracks.erase(it);
    }

    // This frame's share of the search.
    if (!plan.empty()) {
      std::vector<Found> found;
      for (const Piece& p : plan[nextSlot]) {
        std::vector<Found> more =
            detect(p.pyramid ? wholeDetector : levelDetector, gray, p.area, p.scale);
        found.insert(found.end(), more.begin(), more.end());
      }
      nextSlot = (nextSlot + 1) % plan.size();
      merge(gray, found);
    }
    dropDuplicates();

    if (options.estimateAngles)
      for (Track& t : tracks)
        if (t.confirmed && --t.untilAngles <= 0) {
          estimateAngles(gray, t);
          t.untilAngles = kAnglesEvery;
        }
  }

  // The detector on a window around the track, scaled so that the face is of one size
  // whatever its width; the hits that overlap the track, best first.
  std::vector<Found> confirm(const cv::Mat& gray, const Track& t) {
    const double m = kConfirmMargin * t.box.width;
    const cv::Rect area(
        cv::Rect2d(t.box.x - m, t.box.y - m, t.box.width + 2 * m, t.box.height + 2 * m));
    const double scale = kConfirmFaceSide / std::max(t.box.width, 1.0);
    std::vector<Found> found = detect(confirmDetector, gray, area, scale);
    std::erase_if(found, [&](const Found& f) { return overlap(f.box, t.box) < kSameFace; });
    std::sort(found.begin(), found.end(),
              [](const Found& a, const Found& b) { return a.score > b.score; });
    return found;
  }

  // A new detection of the track's face. The detector frames one face up to 15% wider or
  // narrower from frame to frame; the track's size follows the detections smoothed, so that
  // neither the delivered box nor the narrowest-face test jitters with them.
  void refresh(const cv::Mat& gray, Track& t, const cv::Rect2d& box) {
    const double side =
        t.picture.empty() ? box.width : (1 - kSizeWeight) * t.box.width + kSizeWeight * box.width;
    const cv::Point2d c = centre(box);
    t.box = cv::Rect2d(c.x - side / 2, c.y - side / 2, side, side * box.height / box.width);
    t.picture = pictureOf(gray, t.box);
    t.misses = 0;
    t.sinceSeen = 0;
    t.untilConfirm = kConfirmEvery;
  }

  // Faces the search found refresh the followed faces they overlap; the others are new.
  void merge(const cv::Mat& gray, const std::vector<Found>& found) {
    for (const Found& f : found) {
      Track* same = nullptr;
      for (Track& t : tracks)
        if (!same && sameFace(f.box, t.box)) same = &t;
      if (same) {
        // Found again on a later frame: confirmed.
        if (same->age > 0) same->confirmed = true;
        refresh(gray, *same, f.box);
        continue;
      }
      if (f.box.width < kFloorSlack * minFace) continue;
      Track t;
      t.id = nextID++;
      refresh(gray, t, f.box);
      t.untilConfirm = 0;
      tracks.push_back(std::move(t));
    }
  }

  // Two followed faces that have come to cover one face (one of them following what a cut
  // left behind, say): the one the detector saw last keeps it, else the confirmed, else the
  // older.
  void dropDuplicates() {
    const auto better = [](const Track& a, const Track& b) {
      if (a.sinceSeen != b.sinceSeen) return a.sinceSeen < b.sinceSeen;
      if (a.confirmed != b.confirmed) return a.confirmed;
      return a.id < b.id;
    };
    for (size_t i = 0; i < tracks.size(); ++i)
      for (size_t k = i + 1; k < tracks.size();) {
        if (overlap(tracks[i].box, tracks[k].box) >= kSameFace) {
          if (better(tracks[k], tracks[i])) std::swap(tracks[i], tracks[k]);
          tracks.erase(tracks.begin() + static_cast<ptrdiff_t>(k));
        } else {
          ++k;
        }
      }
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
      const double sx = static_cast<double>(width), sy = static_cast<double>(height);
      for (const Track& t : d_->tracks) {
        if (!t.confirmed) continue;
        auto face = std::make_shared<MetadataFaceObject>();
        face->type = std::string(AVMetadataObjectTypeFace);
        // Frame pixels to fractions of the frame, clipped to it.
        const double x0 = std::clamp(t.box.x / sx, 0.0, 1.0);
        const double y0 = std::clamp(t.box.y / sy, 0.0, 1.0);
        const double x1 = std::clamp((t.box.x + t.box.width) / sx, 0.0, 1.0);
        const double y1 = std::clamp((t.box.y + t.box.height) / sy, 0.0, 1.0);
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
  }
  buffer.unlockBaseAddress(kPixelBufferLockReadOnly);
  return out;
}

}  // namespace kwq::platform
