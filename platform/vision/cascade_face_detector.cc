// The face detector over OpenCV's cascade classifiers.
//
// A search runs in up to three passes: the upright image and, for angle estimation, copies
// rolled by 30 degrees either way. Each pass looks for frontal faces (and profiles when
// asked) on a reduced "work" image, then looks for eyes and a mouth inside each face on a
// "detail" image, where every face crop is scaled to the same size so that the feature
// cascades see features of one size whatever the face's size.

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include "kwqimage/Log.h"
#include "platform/image/opencv_view.h"
#include "platform/vision/face_detector.h"

#ifndef KWQ_OPENCV_DATA_DIR
#define KWQ_OPENCV_DATA_DIR "/usr/share/opencv4"
#endif

namespace kwq::platform {
namespace {

// Long side of the image faces are searched in, per accuracy; larger images are reduced.
constexpr int kLowWorkSide = 400;
constexpr int kHighWorkSide = 1280;
// Features are searched in face crops scaled to this width.
constexpr int kFaceSide = 144;
// Below this side nothing can hold a face (the frontal cascade's window is 20 x 20).
constexpr int kMinImageSide = 20;
// Merged smile-cascade neighbours (on the normalised crop) that make a mouth a smile.
constexpr int kSmileNeighbours = 30;
// Roll of the extra passes, clockwise as seen.
constexpr double kRollStep = 30.0;

struct Cascades {
  cv::CascadeClassifier frontal, confirm, profile, eye, eyeGlasses, leftEye, rightEye, smile;
};

// Lends each caller its own classifiers: detectMultiScale keeps per-call state in the
// classifier, so one instance must never serve two threads at once. Sets are loaded on demand
// (about 40 ms each) and kept for reuse, so there are never more than the peak concurrency.
class CascadePool {
 public:
  std::unique_ptr<Cascades> borrow() {
    {
      std::lock_guard lock(mutex_);
      if (failed_) return nullptr;
      if (!free_.empty()) {
        auto set = std::move(free_.back());
        free_.pop_back();
        return set;
      }
    }
    auto set = load();
    if (!set) {
      std::lock_guard lock(mutex_);
      if (!failed_) kwq::log("FaceDetector: cannot load the cascades in " KWQ_OPENCV_DATA_DIR);
      failed_ = true;
    }
    return set;
  }

  void giveBack(std::unique_ptr<Cascades> set) {
    std::lock_guard lock(mutex_);
    free_.push_back(std::move(set));
  }

 private:
  static std::unique_ptr<Cascades> load() {
    auto set = std::make_unique<Cascades>();
    const std::string haar = KWQ_OPENCV_DATA_DIR "/haarcascades/";
    const std::string lbp = KWQ_OPENCV_DATA_DIR "/lbpcascades/";
    const bool ok = set->frontal.load(haar + "haarcascade_frontalface_alt2.xml") &&
                    set->confirm.load(lbp + "lbpcascade_frontalface.xml") &&
                    set->profile.load(lbp + "lbpcascade_profileface.xml") &&
                    set->eye.load(haar + "haarcascade_eye.xml") &&
                    set->eyeGlasses.load(haar + "haarcascade_eye_tree_eyeglasses.xml") &&
                    set->leftEye.load(haar + "haarcascade_lefteye_2splits.xml") &&
                    set->rightEye.load(haar + "haarcascade_righteye_2splits.xml") &&
                    set->smile.load(haar + "haarcascade_smile.xml");
    return ok ? std::move(set) : nullptr;
  }

  std::mutex mutex_;
  std::vector<std::unique_ptr<Cascades>> free_;
  bool failed_ = false;
};

struct Candidate {
  cv::Rect box;     // in the pass's detail image
  int support = 0;  // merged neighbours of the face cascade
  double yaw = 0;   // 0 frontal, 45 or 315 half-turned, 90 or 270 profile
  bool profileOnly = false;
};

// One orientation of the search: `detail` is the detail image rolled by `roll` degrees
// (clockwise as seen) about its centre, on a canvas enlarged to hold it all; `toDetail` maps
// its pixels back to the unrolled detail image.
struct Pass {
  double roll = 0;
  cv::Mat detail;
  cv::Mat work;
  double workToDetail = 1;
  cv::Matx23d toDetail = cv::Matx23d(1, 0, 0, 0, 1, 0);
};

struct Found {
  cv::Rect box;
  int support = 0;
};

cv::Point2d apply(const cv::Matx23d& m, cv::Point2d p) {
  return {m(0, 0) * p.x + m(0, 1) * p.y + m(0, 2), m(1, 0) * p.x + m(1, 1) * p.y + m(1, 2)};
}

double overlap(const cv::Rect& a, const cv::Rect& b) {
  const double inter = (a & b).area();
  const double uni = static_cast<double>(a.area()) + b.area() - inter;
  return uni > 0 ? inter / uni : 0.0;
}

bool sameFace(const cv::Rect& a, const cv::Rect& b) {
  const cv::Point ca(a.x + a.width / 2, a.y + a.height / 2);
  const cv::Point cb(b.x + b.width / 2, b.y + b.height / 2);
  return overlap(a, b) >= 0.3 || a.contains(cb) || b.contains(ca);
}

cv::Mat reduced(const cv::Mat& gray, int longSide) {
  const int side = std::max(gray.cols, gray.rows);
  if (side <= longSide) return gray;
  const double f = static_cast<double>(longSide) / side;
  cv::Mat out;
  cv::resize(gray, out,
             cv::Size(std::max(1, cvRound(gray.cols * f)), std::max(1, cvRound(gray.rows * f))), 0,
             0, cv::INTER_AREA);
  return out;
}

std::vector<Found> detect(cv::CascadeClassifier& cascade, const cv::Mat& image, double scaleFactor,
                          int minNeighbours, cv::Size minSize, cv::Size maxSize = cv::Size()) {
  std::vector<cv::Rect> boxes;
  std::vector<int> support;
  if (image.cols < minSize.width || image.rows < minSize.height) return {};
  cascade.detectMultiScale(image, boxes, support, scaleFactor, minNeighbours, 0, minSize, maxSize);
  std::vector<Found> out;
  for (size_t i = 0; i < boxes.size(); ++i)
    out.push_back({boxes[i], i < support.size() ? support[i] : minNeighbours});
  return out;
}

// Tells skin-coloured regions from others in colour images; built on first use.
class SkinMap {
 public:
  SkinMap(const cv::Mat& colour, PixelLayout layout) : colour_(colour), layout_(layout) {}

  // True when at least 30% of the box's central half has a skin colour (the usual YCrCb
  // bounds). Never for gray images: without colour a face must show an eye.
  bool looksLikeSkin(const cv::Rect& box) {
    if (layout_ == PixelLayout::Gray8) return false;
    if (mask_.empty()) {
      cv::Mat rgb, ycrcb;
      if (layout_ == PixelLayout::RGB24)
        rgb = colour_;
      else
        cv::cvtColor(colour_, rgb,
                     layout_ == PixelLayout::RGBA32 ? cv::COLOR_RGBA2RGB : cv::COLOR_BGRA2RGB);
      cv::cvtColor(rgb, ycrcb, cv::COLOR_RGB2YCrCb);
      cv::inRange(ycrcb, cv::Scalar(0, 133, 77), cv::Scalar(255, 173, 127), mask_);
    }
    const cv::Rect inner =
        cv::Rect(box.x + box.width / 4, box.y + box.height / 4, box.width / 2, box.height / 2) &
        cv::Rect(0, 0, mask_.cols, mask_.rows);
    if (inner.area() == 0) return false;
    return cv::countNonZero(mask_(inner)) >= 0.3 * inner.area();
  }

 private:
  cv::Mat colour_;
  PixelLayout layout_;
  cv::Mat mask_;
};

enum class Verdict { Reject, Accept, AcceptIfSkin };

const Found* strongest(const std::vector<Found>& found) {
  const Found* best = nullptr;
  for (const Found& f : found)
    if (!best || f.support > best->support) best = &f;
  return best;
}

class CascadeFaceDetector final : public FaceDetector {
 public:
  std::vector<FaceFeature> featuresInImage(const Image& image,
                                           const FaceDetectionOptions& options) const override {
    const Bitmap* bitmap = ImageAccess::bitmap(image);
    if (!bitmap || bitmap->width < kMinImageSide || bitmap->height < kMinImageSide ||
        bitmap->width > INT_MAX / 4 || bitmap->height > INT_MAX / 4)
      return {};
    std::unique_ptr<Cascades> set = pool_.borrow();
    if (!set) return {};
    std::vector<FaceFeature> faces;
    try {
      faces = run(*bitmap, options, *set);
    } catch (const std::exception&) {  // cv::Exception or allocation failure
      faces.clear();
    }
    pool_.giveBack(std::move(set));
    return faces;
  }

 private:
  std::vector<FaceFeature> run(const Bitmap& bitmap, const FaceDetectionOptions& options,
                               Cascades& cascades) const {
    const bool high = options.accuracy == FaceAccuracy::High;
    // Reduce huge colour images before converting them, not after.
    cv::Mat source = matView(bitmap), gray;
    const int side = std::max(source.cols, source.rows);
    double toBitmap = 1.0;  // detail pixels to bitmap pixels
    if (side > kHighWorkSide) {
      toBitmap = static_cast<double>(side) / kHighWorkSide;
      const cv::Size size(std::max(1, cvRound(source.cols / toBitmap)),
                          std::max(1, cvRound(source.rows / toBitmap)));
      if (std::min(size.width, size.height) < kMinImageSide) return {};
      cv::resize(source, source, size, 0, 0, cv::INTER_AREA);
    }
    convertLayout(source, bitmap.layout, gray, PixelLayout::Gray8);

    std::vector<Pass> passes;
    passes.push_back(makePass(gray, 0.0, high));
    if (options.estimateAngles) {
      passes.push_back(makePass(gray, kRollStep, high));
      passes.push_back(makePass(gray, -kRollStep, high));
    }

    struct Located {
      FaceFeature face;
      cv::Rect box;  // in the detail image
    };
    std::vector<Located> located;
    SkinMap skin(source, bitmap.layout);
    for (const Pass& pass : passes) {
      const size_t earlier = located.size();
      for (const Candidate& c : candidates(pass, options, high, cascades)) {
        FaceFeature face;
        const Verdict verdict = describe(pass, c, options, cascades, face);
        if (verdict == Verdict::Reject) continue;
        // The face's box in the unrolled detail image: same size, centre mapped back.
        const cv::Point2d centre =
            apply(pass.toDetail, {c.box.x + c.box.width / 2.0, c.box.y + c.box.height / 2.0});
        const cv::Rect box(cvRound(centre.x - c.box.width / 2.0),
                           cvRound(centre.y - c.box.height / 2.0), c.box.width, c.box.height);
        if (verdict == Verdict::AcceptIfSkin && !skin.looksLikeSkin(box)) continue;
        // A rolled pass adds only faces the earlier passes did not find.
        const bool known =
            std::any_of(located.begin(), located.begin() + static_cast<ptrdiff_t>(earlier),
                        [&](const Located& l) { return sameFace(l.box, box); });
        if (!known) located.push_back({face, box});
      }
    }

    std::sort(located.begin(), located.end(), [](const Located& a, const Located& b) {
      return a.box.y != b.box.y ? a.box.y < b.box.y : a.box.x < b.box.x;
    });
    // Detail pixels (top-left origin) to bitmap coordinates with the origin at the bottom left.
    const double height = static_cast<double>(bitmap.height);
    auto flipPoint = [&](Point p) { return Point{p.x * toBitmap, height - p.y * toBitmap}; };
    std::vector<FaceFeature> faces;
    for (Located& l : located) {
      FaceFeature& f = l.face;
      f.bounds = Rect(l.box.x * toBitmap, height - (l.box.y + l.box.height) * toBitmap,
                      l.box.width * toBitmap, l.box.height * toBitmap);
      if (f.hasLeftEyePosition) f.leftEyePosition = flipPoint(f.leftEyePosition);
      if (f.hasRightEyePosition) f.rightEyePosition = flipPoint(f.rightEyePosition);
      if (f.hasMouthPosition) f.mouthPosition = flipPoint(f.mouthPosition);
      faces.push_back(f);
    }
    return faces;
  }

  static Pass makePass(const cv::Mat& gray, double roll, bool high) {
    Pass pass;
    pass.roll = roll;
    if (roll == 0.0) {
      pass.detail = gray;
    } else {
      // Rolling the picture counter-clockwise by `roll` stands a face rolled clockwise by
      // `roll` upright. The canvas grows so that no corner is lost.
      const cv::Point2f centre(gray.cols / 2.0f, gray.rows / 2.0f);
      cv::Mat m = cv::getRotationMatrix2D(centre, roll, 1.0);
      const cv::Rect bounds =
          cv::RotatedRect(centre, gray.size(), static_cast<float>(roll)).boundingRect();
      m.at<double>(0, 2) += bounds.width / 2.0 - centre.x;
      m.at<double>(1, 2) += bounds.height / 2.0 - centre.y;
      cv::warpAffine(gray, pass.detail, m, bounds.size(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
      cv::Mat back;
      cv::invertAffineTransform(m, back);
      pass.toDetail = cv::Matx23d(back);
    }
    pass.work = reduced(pass.detail, high ? kHighWorkSide : kLowWorkSide);
    pass.workToDetail = static_cast<double>(pass.detail.cols) / pass.work.cols;
    return pass;
  }

  // Frontal faces, and profiles where asked, in the pass's detail coordinates.
  static std::vector<Candidate> candidates(const Pass& pass, const FaceDetectionOptions& options,
                                           bool high, Cascades& cascades) {
    cv::Mat work;
    cv::equalizeHist(pass.work, work);
    std::vector<Candidate> out;
    auto toDetail = [&](cv::Rect r, double f) {
      return cv::Rect(cvRound(r.x * f), cvRound(r.y * f), cvRound(r.width * f),
                      cvRound(r.height * f));
    };
    // The thorough search starts at 24 pixels, the smallest face a plain OpenCV search with
    // the default frontal cascade finds; the fast one at the cascade's own 20 on its smaller
    // copy.
    const int minFace = high ? 24 : 20;
    for (const Found& f : detect(cascades.frontal, work, high ? 1.1 : 1.2, 3, {minFace, minFace}))
      out.push_back({toDetail(f.box, pass.workToDetail), f.support, 0.0});

    if ((high || options.estimateAngles) && pass.roll == 0.0) {
      // Profiles upright only, on a half-size copy: turned heads smaller than 40 work pixels
      // are left out, which keeps the thorough search within half again of a plain frontal
      // search. The profile cascade finds heads turned towards the image's left edge; the
      // mirrored copy finds the others.
      cv::Mat half, mirrored;
      cv::resize(work, half, cv::Size(), 0.5, 0.5, cv::INTER_AREA);
      cv::flip(half, mirrored, 1);
      const double f = 2.0 * pass.workToDetail;
      for (int side = 0; side < 2; ++side) {
        for (const Found& p : detect(cascades.profile, side ? mirrored : half, 1.2, 3, {20, 20})) {
          cv::Rect box = p.box;
          if (side) box.x = half.cols - box.x - box.width;
          const Candidate c{toDetail(box, f), p.support, side ? 90.0 : 270.0, true};
          // A profile over a frontal face marks a half-turned head; the frontal box stays.
          auto frontal = std::find_if(out.begin(), out.end(), [&](const Candidate& o) {
            return o.yaw == 0.0 && sameFace(o.box, c.box);
          });
          if (frontal != out.end()) {
            frontal->yaw = c.yaw == 90.0 ? 45.0 : 315.0;
          } else if (std::none_of(out.begin(), out.end(),
                                  [&](const Candidate& o) { return sameFace(o.box, c.box); })) {
            out.push_back(c);
          }
        }
      }
    }
    return out;
  }

  // True when the confirming cascade finds a face of about the box's size and place.
  static bool confirmed(const cv::Mat& detail, const cv::Rect& box, Cascades& cascades) {
    constexpr int kSide = 60;  // the box's width in the scaled search area
    const cv::Rect area = cv::Rect(box.x - box.width / 3, box.y - box.height / 3, box.width * 5 / 3,
                                   box.height * 5 / 3) &
                          cv::Rect(0, 0, detail.cols, detail.rows);
    const double f = static_cast<double>(kSide) / box.width;
    cv::Mat scaled;
    cv::resize(detail(area), scaled, cv::Size(), f, f, f < 1 ? cv::INTER_AREA : cv::INTER_LINEAR);
    cv::equalizeHist(scaled, scaled);
    const cv::Rect centre(cvRound((box.x - area.x + box.width / 4.0) * f),
                          cvRound((box.y - area.y + box.height / 4.0) * f), kSide / 2, kSide / 2);
    for (const Found& hit : detect(cascades.confirm, scaled, 1.1, 2, {kSide * 3 / 5, kSide * 3 / 5},
                                   {kSide * 7 / 5, kSide * 7 / 5}))
      if (centre.contains({hit.box.x + hit.box.width / 2, hit.box.y + hit.box.height / 2}))
        return true;
    return false;
  }

  // Eyes, mouth and flags of one candidate, in the pass's detail coordinates mapped back to
  // the unrolled detail image, and whether it counts as a face.
  static Verdict describe(const Pass& pass, const Candidate& c, const FaceDetectionOptions& options,
                          Cascades& cascades, FaceFeature& face) {
    const cv::Rect box = c.box & cv::Rect(0, 0, pass.detail.cols, pass.detail.rows);
    if (box.width < 4 || box.height < 4) return Verdict::Reject;
    // The crop extends a little below the face so that the mouth lies wholly inside it.
    const int extra = std::min(box.height / 8, pass.detail.rows - (box.y + box.height));
    const cv::Rect cropBox(box.x, box.y, box.width, box.height + std::max(extra, 0));
    const double f = static_cast<double>(kFaceSide) / box.width;  // detail to crop
    cv::Mat crop;
    cv::resize(pass.detail(cropBox), crop,
               cv::Size(kFaceSide, std::max(1, cvRound(cropBox.height * f))), 0, 0,
               cv::INTER_LINEAR);
    cv::equalizeHist(crop, crop);
    const int faceHeight = cvRound(box.height * f);
    auto toDetail = [&](cv::Point2d p) {
      return apply(pass.toDetail, {cropBox.x + p.x / f, cropBox.y + p.y / f});
    };

    // Eyes: open eyes first, then eyes behind glasses, then the eye-region cascades, which
    // also find closed eyes. An eye found only by the last counts as closed.
    const cv::Rect upper(0, faceHeight / 8, kFaceSide,
                         std::min(faceHeight / 2 + faceHeight / 8, crop.rows) - faceHeight / 8);
    const cv::Size eyeMin(kFaceSide / 9, kFaceSide / 9), eyeMax(kFaceSide / 3, kFaceSide / 3);
    struct Eye {
      bool found = false;
      cv::Point2d centre;
      bool closed = false;
    } eyes[2];
    auto centreOf = [&](const cv::Rect& r, const cv::Rect& area) {
      return cv::Point2d(area.x + r.x + r.width / 2.0, area.y + r.y + r.height / 2.0);
    };
    auto take = [&](const std::vector<Found>& found, const cv::Rect& area, int side, bool closed) {
      std::vector<Found> mine;
      for (const Found& e : found) {
        const cv::Point2d p = centreOf(e.box, area);
        if ((p.x < kFaceSide / 2.0) == (side == 0) && p.y < faceHeight / 2.0) mine.push_back(e);
      }
      if (const Found* best = strongest(mine))
        eyes[side] = {true, centreOf(best->box, area), closed};
    };
    if (upper.height >= eyeMin.height) {
      const cv::Mat region = crop(upper);
      const auto open = detect(cascades.eye, region, 1.1, 3, eyeMin, eyeMax);
      for (int side = 0; side < 2; ++side) take(open, upper, side, false);
      if (!eyes[0].found || !eyes[1].found) {
        const auto glasses = detect(cascades.eyeGlasses, region, 1.1, 3, eyeMin, eyeMax);
        for (int side = 0; side < 2; ++side)
          if (!eyes[side].found) take(glasses, upper, side, false);
      }
      for (int side = 0; side < 2; ++side) {
        if (eyes[side].found) continue;
        // The eye-region cascades are named after the person's eyes: the person's right eye
        // is on the image's left.
        const cv::Rect half(side == 0 ? 0 : kFaceSide / 2, upper.y, kFaceSide / 2, upper.height);
        take(detect(side == 0 ? cascades.rightEye : cascades.leftEye, crop(half), 1.1, 3, eyeMin,
                    eyeMax),
             half, side, true);
      }
    }

    // A face must show an eye or, if frontal, be found again by the second, differently
    // trained frontal cascade (the two seldom agree on the same non-face) and have a skin
    // colour.
    const bool eyeFound = eyes[0].found || eyes[1].found;
    if (!eyeFound && (c.profileOnly || !confirmed(pass.detail, box, cascades)))
      return Verdict::Reject;

    // Mouth: the smile cascade also responds to mouths that do not smile, only less strongly.
    const int mouthTop = faceHeight * 11 / 20;
    const cv::Rect lower(kFaceSide / 8, mouthTop, kFaceSide * 3 / 4, crop.rows - mouthTop);
    if (lower.height >= kFaceSide / 8) {
      std::vector<Found> mouths;
      for (const Found& m :
           detect(cascades.smile, crop(lower), 1.1, 3, {kFaceSide / 4, kFaceSide / 8},
                  {kFaceSide * 3 / 4, kFaceSide / 2})) {
        const cv::Point2d p = centreOf(m.box, lower);
        if (p.y >= faceHeight * 0.6 && p.y <= faceHeight * 1.05) mouths.push_back(m);
      }
      if (const Found* best = strongest(mouths)) {
        const cv::Point2d p = toDetail(centreOf(best->box, lower));
        face.hasMouthPosition = true;
        face.mouthPosition = {p.x, p.y};
        face.hasSmile = options.detectSmile && best->support >= kSmileNeighbours;
      }
    }

    for (int side = 0; side < 2; ++side) {
      if (!eyes[side].found) continue;
      const cv::Point2d p = toDetail(eyes[side].centre);
      (side == 0 ? face.hasLeftEyePosition : face.hasRightEyePosition) = true;
      (side == 0 ? face.leftEyePosition : face.rightEyePosition) = {p.x, p.y};
      if (options.detectEyeBlink)
        (side == 0 ? face.leftEyeClosed : face.rightEyeClosed) = eyes[side].closed;
    }

    // Angles. Points are still in top-left coordinates, where a clockwise tilt as seen is a
    // positive angle; the face angle is reported with the y axis up.
    double tilt = pass.roll;
    if (face.hasLeftEyePosition && face.hasRightEyePosition) {
      tilt = std::atan2(face.rightEyePosition.y - face.leftEyePosition.y,
                        face.rightEyePosition.x - face.leftEyePosition.x) *
             180.0 / CV_PI;
      face.hasFaceAngle = true;
      face.faceAngle = static_cast<float>(-tilt);
    }
    if (options.estimateAngles) {
      face.hasYawAngle = true;
      face.yawAngle = c.yaw;
      face.hasRollAngle = true;
      // Within (-180, 180] before the shift, so the sum is positive and -0 becomes 0.
      face.rollAngle = std::fmod(std::round(tilt / kRollStep) * kRollStep + 360.0, 360.0);
    }
    return eyeFound ? Verdict::Accept : Verdict::AcceptIfSkin;
  }

  mutable CascadePool pool_;
};

}  // namespace

std::shared_ptr<const FaceDetector> sharedFaceDetector() {
  static const std::shared_ptr<const FaceDetector> detector =
      std::make_shared<CascadeFaceDetector>();
  return detector;
}

}  // namespace kwq::platform
