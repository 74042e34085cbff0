#pragma once

// A labelled set of real faces for the live face tests and benchmarks, made at run time from
// photographs Debian ships (opencv-doc, python3-skimage) and the labels in
// tests/data/face_set_labels.txt.
//
// A clip films one photograph as a 720p kiosk camera would: the photograph (cut around its
// faces, head and shoulders) is scaled so that its widest face is a chosen width, hung on a
// plain or a textured wall, and either held still or panned slowly; every frame has a little
// sensor noise of its own. The true boxes travel with every frame.
//
// Photographs, videos and noise are kept for the process once read; not thread-safe.

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace kwq::test {

/// A photograph and its labelled faces, in the photograph's pixels.
struct FacePhoto {
  std::string source;              // as named in the label file
  cv::Mat bgr;                     // the photograph (a video frame for "VIDEO#N")
  std::vector<cv::Rect2d> faces;   // faces that must be found
  std::vector<cv::Rect2d> extras;  // real faces that may be found
  /// The widest of `faces` (an empty box when there is none).
  cv::Rect2d widest() const;
};

/// The photographs of the label file at `labelFile`, in its order. Empty when the file or any
/// photograph it names cannot be read (so a test sees a missing package as a failure, not as
/// a smaller set).
std::vector<FacePhoto> loadFacePhotos(const std::string& labelFile);

/// Photographs of things, not people (opencv-doc), by name.
const std::vector<std::string>& faceFreePhotoNames();

/// A face-free photograph read from opencv-doc; empty when missing.
cv::Mat loadFaceFreePhoto(const std::string& name);

enum class Motion : uint8_t { Still, Pan };
enum class Wall : uint8_t { Plain, Textured };

/// One frame of a clip and where its faces are, in the frame's pixels.
struct ClipFrame {
  cv::Mat bgr;
  std::vector<cv::Rect2d> faces;  // faces[0] is the widest
  std::vector<cv::Rect2d> extras;
};

/// A camera filming one photograph. Frames are made on demand and are the same for the same
/// arguments.
class FaceClip {
 public:
  /// The photograph scaled so its widest face is `faceWidth` pixels wide, in frames of
  /// `frameSize`. A pan moves the camera sideways by up to 80 pixels each way (and 16 up and
  /// down) over five seconds at 30 frames per second: at most about 3.4 pixels per frame.
  FaceClip(const FacePhoto& photo, double faceWidth, Motion motion, Wall wall, uint32_t seed = 1,
           cv::Size frameSize = {1280, 720});

  ClipFrame frame(int index) const;
  cv::Size frameSize() const { return frame_; }

 private:
  cv::Size frame_;
  Motion motion_;
  cv::Mat canvas_;                 // the wall with the photograph, larger than a frame by the pan
  cv::Point2d margin_;             // the pan's reach each way
  std::vector<cv::Rect2d> faces_;  // on the canvas
  std::vector<cv::Rect2d> extras_;
  std::vector<cv::Mat> noise_;  // signed sensor noise, cycled
};

}  // namespace kwq::test
