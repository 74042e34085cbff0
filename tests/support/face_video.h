#pragma once

// Faces in video for the face tests and benchmarks: the hand-checked faces of Megamind.avi
// (tests/data/megamind_faces.txt), scoring of found boxes against them, and camera samples
// made from decoded frames. Header-only so that bench/ can share it without the test library.

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "kwqimage/SampleBuffer.h"

namespace kwq::test {

/// One line of a truth file.
struct TruthFace {
  enum class Kind : uint8_t { Face, Extra, None };
  int frame = 0;
  Kind kind = Kind::None;
  cv::Rect2d box;
};

/// Reads a truth file ("frame face|extra x y w h" or "frame none", # comments); empty when
/// the file cannot be read.
inline std::vector<TruthFace> loadFaceTruth(const std::string& path) {
  std::vector<TruthFace> out;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    TruthFace t;
    std::string kind;
    if (!(words >> t.frame >> kind)) continue;
    if (kind == "none") {
      out.push_back(t);
      continue;
    }
    t.kind = kind == "face" ? TruthFace::Kind::Face : TruthFace::Kind::Extra;
    if (words >> t.box.x >> t.box.y >> t.box.width >> t.box.height) out.push_back(t);
  }
  return out;
}

/// Frames the truth speaks about, in order.
inline std::vector<int> truthFrames(const std::vector<TruthFace>& truth) {
  std::vector<int> frames;
  for (const TruthFace& t : truth)
    if (frames.empty() || frames.back() != t.frame) frames.push_back(t.frame);
  return frames;
}

/// A found box names a true face when they overlap by at least 0.3 (intersection over union)
/// or the centre of one lies inside the other (detectors frame faces differently).
inline bool sameFace(const cv::Rect2d& truth, const cv::Rect2d& found) {
  const double inter = (truth & found).area();
  const double iou = inter / (truth.area() + found.area() - inter);
  const auto centre = [](const cv::Rect2d& r) {
    return cv::Point2d(r.x + r.width / 2, r.y + r.height / 2);
  };
  return iou >= 0.3 || truth.contains(centre(found)) || found.contains(centre(truth));
}

/// Recall and false faces over the labelled frames.
struct FaceScore {
  int faces = 0;       // faces that must be found
  int found = 0;       // of which found
  int falseFaces = 0;  // found boxes matching no face of the frame (background faces count
                       // as true)
  double recall() const { return faces ? static_cast<double>(found) / faces : 0.0; }

  /// Adds one labelled frame; `boxes` in the truth's pixels.
  void add(const std::vector<TruthFace>& truth, int frame, const std::vector<cv::Rect2d>& boxes) {
    std::vector<bool> used(boxes.size(), false);
    for (const TruthFace& t : truth) {
      if (t.frame != frame || t.kind == TruthFace::Kind::None) continue;
      bool hit = false;
      for (size_t i = 0; i < boxes.size(); ++i)
        if (sameFace(t.box, boxes[i])) {
          hit = true;
          used[i] = true;
        }
      if (t.kind == TruthFace::Kind::Face) {
        ++faces;
        found += hit ? 1 : 0;
      }
    }
    for (bool u : used) falseFaces += u ? 0 : 1;
  }
};

/// Every frame of the video at `path` (opencv-doc's Megamind.avi), read on the first call and
/// kept for the process (later calls' paths are not looked at); empty without the file.
inline const std::vector<cv::Mat>& megamindFrames(const std::string& path) {
  static const std::vector<cv::Mat> frames = [&] {
    std::vector<cv::Mat> all;
    cv::VideoCapture video(path);
    for (cv::Mat frame; video.read(frame);) all.push_back(frame.clone());
    return all;
  }();
  return frames;
}

/// A 420f sample of a BGR picture: full-range luma (OpenCV's BT.601 gray), neutral chroma,
/// rows padded to 64 bytes as cameras pad them.
inline SampleBuffer sample420f(const cv::Mat& bgr, int64_t frameNumber = 0) {
  PixelBuffer buffer = PixelBuffer::allocate(kPixelFormat420f, static_cast<size_t>(bgr.cols),
                                             static_cast<size_t>(bgr.rows));
  if (buffer.isNull() || !buffer.lockBaseAddress()) return {};
  cv::Mat luma(bgr.rows, bgr.cols, CV_8UC1, buffer.baseAddressOfPlane(0),
               buffer.bytesPerRowOfPlane(0));
  cv::cvtColor(bgr, luma, cv::COLOR_BGR2GRAY);
  for (size_t y = 0; y < buffer.heightOfPlane(1); ++y)
    std::fill_n(buffer.baseAddressOfPlane(1) + y * buffer.bytesPerRowOfPlane(1),
                2 * buffer.widthOfPlane(1), uint8_t{128});
  buffer.unlockBaseAddress();
  return SampleBuffer(buffer, {frameNumber * 1001, 30000}, {1001, 30000});
}

/// A BGRA sample of a BGR picture (opaque).
inline SampleBuffer sampleBGRA(const cv::Mat& bgr, int64_t frameNumber = 0) {
  PixelBuffer buffer = PixelBuffer::allocate(kPixelFormatBGRA, static_cast<size_t>(bgr.cols),
                                             static_cast<size_t>(bgr.rows));
  if (buffer.isNull() || !buffer.lockBaseAddress()) return {};
  cv::Mat pixels(bgr.rows, bgr.cols, CV_8UC4, buffer.baseAddressOfPlane(0),
                 buffer.bytesPerRowOfPlane(0));
  cv::cvtColor(bgr, pixels, cv::COLOR_BGR2BGRA);
  buffer.unlockBaseAddress();
  return SampleBuffer(buffer, {frameNumber * 1001, 30000}, {1001, 30000});
}

/// A picture placed in the middle of a black 1280 x 720 frame, scaled to its height, as a
/// 720p camera would deliver it; `scale` and `offset` map the picture's pixels into the frame.
inline cv::Mat letterbox720(const cv::Mat& bgr, double* scale = nullptr,
                            cv::Point2d* offset = nullptr) {
  const double s = 720.0 / bgr.rows;
  cv::Mat resized;
  cv::resize(bgr, resized, cv::Size(), s, s, cv::INTER_LINEAR);
  cv::Mat frame = cv::Mat::zeros(720, 1280, bgr.type());
  const int width = std::min(resized.cols, 1280);
  const int x = (1280 - width) / 2;
  resized(cv::Rect(0, 0, width, resized.rows)).copyTo(frame(cv::Rect(x, 0, width, 720)));
  if (scale) *scale = s;
  if (offset) *offset = {static_cast<double>(x), 0.0};
  return frame;
}

}  // namespace kwq::test
