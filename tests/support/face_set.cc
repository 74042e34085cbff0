#include "tests/support/face_set.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#ifndef KWQ_SAMPLE_DATA_DIR
#define KWQ_SAMPLE_DATA_DIR "/usr/share/doc/opencv-doc/examples/data"
#endif
#ifndef KWQ_SKIMAGE_DATA_DIR
#define KWQ_SKIMAGE_DATA_DIR "/usr/lib/python3/dist-packages/skimage/data"
#endif

namespace kwq::test {
namespace {

// The pan: reach each way and period.
constexpr double kPanX = 80, kPanY = 16;
constexpr double kPanFrames = 150;
// Around its faces a photograph is cut this many widest-face widths wide on each side (head
// and shoulders, and some of what stands behind).
constexpr double kCutMargin = 1.25;
// Standard deviation of the sensor noise, in 8-bit steps, and how many noise frames cycle.
constexpr double kSensorNoise = 2.5;
constexpr int kNoiseFrames = 5;

// Frame `index` of the video at `path`; videos are decoded once per process.
cv::Mat videoFrame(const std::string& path, int index) {
  static std::map<std::string, std::vector<cv::Mat>> videos;
  auto it = videos.find(path);
  if (it == videos.end()) {
    std::vector<cv::Mat> frames;
    cv::VideoCapture video(path);
    for (cv::Mat f; video.read(f);) frames.push_back(f.clone());
    it = videos.emplace(path, std::move(frames)).first;
  }
  if (index < 0 || index >= static_cast<int>(it->second.size())) return {};
  return it->second[static_cast<size_t>(index)];
}

// Reads "opencv-doc/NAME", "opencv-doc/VIDEO#N" or "skimage/NAME".
cv::Mat readSource(const std::string& source) {
  std::string dir, name;
  if (source.rfind("opencv-doc/", 0) == 0) {
    dir = KWQ_SAMPLE_DATA_DIR;
    name = source.substr(11);
  } else if (source.rfind("skimage/", 0) == 0) {
    dir = KWQ_SKIMAGE_DATA_DIR;
    name = source.substr(8);
  } else {
    return {};
  }
  const size_t hash = name.find('#');
  if (hash != std::string::npos)
    return videoFrame(dir + "/" + name.substr(0, hash), std::atoi(name.c_str() + hash + 1));
  return cv::imread(dir + "/" + name, cv::IMREAD_COLOR);
}

cv::Mat makeWall(cv::Size size, Wall wall, std::mt19937& rng) {
  if (wall == Wall::Plain) return cv::Mat(size, CV_8UC3, cv::Scalar(150, 152, 148));
  // A rough plaster: large soft blotches and a fine grain, in a warm grey.
  cv::RNG random(rng());
  cv::Mat coarse(size.height / 32 + 2, size.width / 32 + 2, CV_32F), fine(size, CV_32F);
  random.fill(coarse, cv::RNG::NORMAL, 0, 18);
  cv::resize(coarse, coarse, size, 0, 0, cv::INTER_CUBIC);
  random.fill(fine, cv::RNG::NORMAL, 0, 9);
  cv::Mat shade = coarse + fine + 140, gray8;
  shade.convertTo(gray8, CV_8U);
  cv::Mat out;
  cv::cvtColor(gray8, out, cv::COLOR_GRAY2BGR);
  out += cv::Scalar(-6, 0, 8);
  return out;
}

// Signed sensor noise frames of one size, made once per process (every clip cycles the same).
const std::vector<cv::Mat>& sensorNoise(cv::Size size) {
  static std::map<std::pair<int, int>, std::vector<cv::Mat>> made;
  std::vector<cv::Mat>& frames = made[{size.width, size.height}];
  if (frames.empty()) {
    cv::RNG noise(20261125);
    for (int i = 0; i < kNoiseFrames; ++i) {
      cv::Mat n(size, CV_16SC3);
      noise.fill(n, cv::RNG::NORMAL, 0, kSensorNoise);
      frames.push_back(n);
    }
  }
  return frames;
}

}  // namespace

cv::Rect2d FacePhoto::widest() const {
  cv::Rect2d best;
  for (const cv::Rect2d& f : faces)
    if (f.width > best.width) best = f;
  return best;
}

std::vector<FacePhoto> loadFacePhotos(const std::string& labelFile) {
  std::vector<FacePhoto> out;
  std::ifstream in(labelFile);
  if (!in) return {};
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string source, kind;
    cv::Rect2d box;
    if (!(words >> source >> kind >> box.x >> box.y >> box.width >> box.height)) return {};
    if (out.empty() || out.back().source != source) {
      FacePhoto photo;
      photo.source = source;
      photo.bgr = readSource(source);
      if (photo.bgr.empty()) return {};
      out.push_back(std::move(photo));
    }
    (kind == "face" ? out.back().faces : out.back().extras).push_back(box);
  }
  return out;
}

const std::vector<std::string>& faceFreePhotoNames() {
  static const std::vector<std::string> names = {
      "building.jpg", "fruits.jpg", "board.jpg",        "home.jpg",     "leuvenA.jpg",
      "stuff.jpg",    "orange.jpg", "sudoku.png",       "smarties.png", "butterfly.jpg",
      "apple.jpg",    "aero1.jpg",  "starry_night.jpg", "notes.png",    "blox.jpg"};
  return names;
}

cv::Mat loadFaceFreePhoto(const std::string& name) {
  return cv::imread(std::string(KWQ_SAMPLE_DATA_DIR) + "/" + name, cv::IMREAD_COLOR);
}

FaceClip::FaceClip(const FacePhoto& photo, double faceWidth, Motion motion, Wall wall,
                   uint32_t seed, cv::Size frameSize)
    : frame_(frameSize), motion_(motion) {
  std::mt19937 rng(seed);
  margin_ = motion == Motion::Pan ? cv::Point2d(kPanX, kPanY) : cv::Point2d(0, 0);
  const cv::Size canvasSize(frameSize.width + 2 * static_cast<int>(margin_.x),
                            frameSize.height + 2 * static_cast<int>(margin_.y));
  canvas_ = makeWall(canvasSize, wall, rng);

  const cv::Rect2d widest = photo.widest();
  if (photo.bgr.empty() || !(widest.width > 0) || !(faceWidth > 0)) return;
  const double scale = faceWidth / widest.width;
  // The cut: around every labelled face, with room for head and shoulders, at most a frame.
  cv::Rect2d all = widest;
  for (const auto* list : {&photo.faces, &photo.extras})
    for (const cv::Rect2d& f : *list) all |= f;
  const double m = kCutMargin * widest.width;
  cv::Rect2d cut(all.x - m, all.y - m, all.width + 2 * m, all.height + 2.5 * m);
  cut.width = std::min(cut.width, frameSize.width / scale);
  cut.height = std::min(cut.height, frameSize.height / scale);
  const cv::Point2d centre(all.x + all.width / 2, all.y + all.height / 2);
  cut.x = std::max(centre.x - cut.width / 2, 0.0);
  cut.y = std::max(centre.y - cut.height * 0.4, 0.0);
  const cv::Rect source = cv::Rect(cut) & cv::Rect(0, 0, photo.bgr.cols, photo.bgr.rows);
  if (source.area() == 0) return;
  cv::Mat scaled;
  cv::resize(photo.bgr(source), scaled, cv::Size(), scale, scale,
             scale < 1 ? cv::INTER_AREA : cv::INTER_CUBIC);
  // Faces' centre at the middle of the frame across and a little above the middle down.
  const cv::Point2d faceCentre((centre.x - source.x) * scale, (centre.y - source.y) * scale);
  const cv::Point2d at(margin_.x + frameSize.width / 2.0 - faceCentre.x,
                       margin_.y + frameSize.height * 0.45 - faceCentre.y);
  const cv::Rect place = cv::Rect(cvRound(at.x), cvRound(at.y), scaled.cols, scaled.rows) &
                         cv::Rect(0, 0, canvas_.cols, canvas_.rows);
  if (place.area() == 0) return;
  const cv::Rect from(place.x - cvRound(at.x), place.y - cvRound(at.y), place.width, place.height);
  scaled(from).copyTo(canvas_(place));
  const auto onCanvas = [&](const cv::Rect2d& f) {
    return cv::Rect2d(cvRound(at.x) + (f.x - source.x) * scale,
                      cvRound(at.y) + (f.y - source.y) * scale, f.width * scale, f.height * scale);
  };
  faces_.push_back(onCanvas(widest));
  for (const cv::Rect2d& f : photo.faces)
    if (f != widest) faces_.push_back(onCanvas(f));
  for (const cv::Rect2d& f : photo.extras) extras_.push_back(onCanvas(f));

  noise_ = sensorNoise(frameSize);
}

ClipFrame FaceClip::frame(int index) const {
  ClipFrame out;
  cv::Point2d shift(margin_.x, margin_.y);
  if (motion_ == Motion::Pan) {
    const double phase = 2 * CV_PI * index / kPanFrames;
    shift += cv::Point2d(margin_.x * std::sin(phase), margin_.y * std::sin(2 * phase));
  }
  const cv::Point origin(cvRound(shift.x), cvRound(shift.y));
  const cv::Mat window = canvas_(cv::Rect(origin, frame_));
  if (noise_.empty()) {
    out.bgr = window.clone();
  } else {
    window.convertTo(out.bgr, CV_16SC3);
    out.bgr += noise_[static_cast<size_t>(index) % noise_.size()];
    out.bgr.convertTo(out.bgr, CV_8UC3);
  }
  const auto toFrame = [&](const cv::Rect2d& r) {
    return cv::Rect2d(r.x - origin.x, r.y - origin.y, r.width, r.height);
  };
  for (const cv::Rect2d& f : faces_) out.faces.push_back(toFrame(f));
  for (const cv::Rect2d& f : extras_) out.extras.push_back(toFrame(f));
  return out;
}

}  // namespace kwq::test
