// Cost and reach of the live face recogniser against the face detectors a user would otherwise
// reach for, on Megamind.avi (opencv-doc) placed in 1280 x 720 frames as a 720p camera would
// deliver them, single-threaded.
//
// First Google Benchmark times, in CPU time, one recognize() pass (the whole clip in order,
// 420f frames, per frame) against the peer: cv::CascadeClassifier::detectMultiScale with its
// default arguments and haarcascade_frontalface_default.xml on the full 720p gray frame (every
// 10th frame, per frame), and prints the ratio. Then one comparison table, every method on the
// same frames:
//   method | recall | false faces on video | face-free photos with a face | CPU ms per frame
// Recall counts the hand-checked faces of tests/data/megamind_faces.txt (every 10th frame)
// that a delivered box names (overlap 0.3 or a centre inside); false faces are boxes on those
// frames that name no face. Face-free photos are 15 opencv-doc photographs of things.
//
//   cmake --build build --target live_face_bench && ./build/bench/live_face_bench
//   ./build/bench/live_face_bench --benchmark_filter=none   # the table only

#include <benchmark/benchmark.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <vector>

#include "bench/bench_report.h"
#include "kwqimage/Image.h"
#include "platform/vision/face_detector.h"
#include "platform/vision/live_face_recognizer.h"
#include "tests/support/face_video.h"

#ifndef KWQ_OPENCV_DATA_DIR
#define KWQ_OPENCV_DATA_DIR "/usr/share/opencv4"
#endif

namespace {

using kwq::platform::LiveFaceOptions;
using kwq::platform::LiveFaceRecognizer;
using kwq::test::TruthFace;

const char* const kFaceFree[] = {"building.jpg",     "fruits.jpg",    "board.jpg",  "home.jpg",
                                 "leuvenA.jpg",      "stuff.jpg",     "orange.jpg", "sudoku.png",
                                 "smarties.png",     "butterfly.jpg", "apple.jpg",  "aero1.jpg",
                                 "starry_night.jpg", "notes.png",     "blox.jpg"};

struct Clip {
  std::vector<cv::Mat> bgr;                // 1280 x 720
  std::vector<cv::Mat> gray;               // 1280 x 720
  std::vector<kwq::SampleBuffer> samples;  // 420f
  std::vector<TruthFace> truth;            // in the 720p frames' pixels
  std::vector<cv::Mat> faceFree;           // 1280 x 720
  cv::CascadeClassifier peer;

  Clip() {
    cv::VideoCapture video(std::string(KWQ_SAMPLE_DATA_DIR) + "/Megamind.avi");
    double scale = 1;
    cv::Point2d offset;
    for (cv::Mat frame; video.read(frame);) {
      bgr.push_back(kwq::test::letterbox720(frame, &scale, &offset));
      cv::Mat g;
      cv::cvtColor(bgr.back(), g, cv::COLOR_BGR2GRAY);
      gray.push_back(g);
      samples.push_back(kwq::test::sample420f(bgr.back(), static_cast<int64_t>(samples.size())));
    }
    truth = kwq::test::loadFaceTruth(KWQ_TEST_DATA_DIR "/megamind_faces.txt");
    for (TruthFace& t : truth)
      t.box = {t.box.x * scale + offset.x, t.box.y * scale + offset.y, t.box.width * scale,
               t.box.height * scale};
    for (const char* name : kFaceFree) {
      const cv::Mat photo = cv::imread(std::string(KWQ_SAMPLE_DATA_DIR) + "/" + name);
      if (!photo.empty()) faceFree.push_back(kwq::test::letterbox720(photo));
    }
    if (bgr.size() < 270 || truth.empty() || faceFree.size() != std::size(kFaceFree)) {
      std::fprintf(stderr,
                   "Megamind.avi, the photographs (opencv-doc) or the truth file missing\n");
      std::exit(1);
    }
    if (!peer.load(KWQ_OPENCV_DATA_DIR "/haarcascades/haarcascade_frontalface_default.xml")) {
      std::fprintf(stderr, "cascades not found (Debian package opencv-data)\n");
      std::exit(1);
    }
  }
};

Clip& clip() {
  static Clip c;
  return c;
}

std::vector<cv::Rect2d> boxesOf(
    const std::vector<std::shared_ptr<const kwq::MetadataFaceObject>>& faces, cv::Size frame) {
  std::vector<cv::Rect2d> out;
  for (const auto& f : faces)
    out.emplace_back(f->bounds.minX() * frame.width, f->bounds.minY() * frame.height,
                     f->bounds.width() * frame.width, f->bounds.height() * frame.height);
  return out;
}

std::vector<cv::Rect2d> peerDetect(const cv::Mat& gray) {
  std::vector<cv::Rect> found;
  clip().peer.detectMultiScale(gray, found);
  return {found.begin(), found.end()};
}

// Our still-image cascade detector (the faces of getKWQFaceFeaturesWithAccuracy).
std::vector<cv::Rect2d> stillDetect(const cv::Mat& bgr, kwq::platform::FaceAccuracy accuracy) {
  cv::Mat rgb;
  cv::cvtColor(bgr, rgb, cv::COLOR_BGR2RGB);
  const kwq::Image image =
      kwq::Image::copyFromBytes(kwq::PixelLayout::RGB24, rgb.cols, rgb.rows, rgb.step[0], rgb.data);
  kwq::platform::FaceDetectionOptions options;
  options.accuracy = accuracy;
  std::vector<cv::Rect2d> out;
  for (const auto& f : kwq::platform::sharedFaceDetector()->featuresInImage(image, options))
    out.emplace_back(f.bounds.minX(), rgb.rows - f.bounds.maxY(), f.bounds.width(),
                     f.bounds.height());
  return out;
}

void recognizeClip(benchmark::State& state) {
  Clip& c = clip();
  for (auto _ : state) {
    LiveFaceRecognizer recognizer;
    for (const kwq::SampleBuffer& s : c.samples) benchmark::DoNotOptimize(recognizer.recognize(s));
  }
  state.counters["frames"] = static_cast<double>(c.samples.size());
}

void peerClip(benchmark::State& state) {
  Clip& c = clip();
  for (auto _ : state)
    for (size_t i = 0; i < c.gray.size(); i += 10) benchmark::DoNotOptimize(peerDetect(c.gray[i]));
}

double threadCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

// One row of the comparison: `frames` gives the boxes of frame i (called for every frame when
// `sequence`, else for every 10th), `photo` those of a face-free photo shown for 12 frames.
void compare(const char* method, bool sequence,
             const std::function<std::vector<cv::Rect2d>(size_t)>& frames,
             const std::function<size_t(const cv::Mat&)>& photo) {
  Clip& c = clip();
  kwq::test::FaceScore score;
  double cpu = 0;
  size_t timed = 0;
  for (size_t i = 0; i < c.bgr.size(); i += sequence ? 1 : 10) {
    const double start = threadCpuMs();
    const std::vector<cv::Rect2d> boxes = frames(i);
    cpu += threadCpuMs() - start;
    ++timed;
    if (i % 10 == 0) score.add(c.truth, static_cast<int>(i), boxes);
  }
  int photos = 0;
  for (const cv::Mat& p : c.faceFree) photos += photo(p) > 0 ? 1 : 0;
  std::printf("%s | %d/%d (%.2f) | %d | %d/%zu | %.1f\n", method, score.found, score.faces,
              score.recall(), score.falseFaces, photos, c.faceFree.size(), cpu / timed);
}

void printComparison() {
  Clip& c = clip();
  const cv::Size size(1280, 720);
  std::printf(
      "\nmethod (1280x720 frames, one thread) | recall Megamind | false faces on video | "
      "face-free photos with a face | CPU ms per frame\n");
  compare(
      "peer: detectMultiScale, haarcascade_frontalface_default, full frame", false,
      [&](size_t i) { return peerDetect(c.gray[i]); },
      [](const cv::Mat& p) {
        cv::Mat g;
        cv::cvtColor(p, g, cv::COLOR_BGR2GRAY);
        return peerDetect(g).size();
      });
  for (const auto& [name, accuracy] :
       {std::pair{"still cascades (alt2 + confirmation), low accuracy",
                  kwq::platform::FaceAccuracy::Low},
        std::pair{"still cascades (alt2 + confirmation), high accuracy",
                  kwq::platform::FaceAccuracy::High}})
    compare(
        name, false, [&, accuracy = accuracy](size_t i) { return stillDetect(c.bgr[i], accuracy); },
        [accuracy = accuracy](const cv::Mat& p) { return stillDetect(p, accuracy).size(); });

  struct Variant {
    const char* name;
    LiveFaceOptions options;
  };
  for (const Variant& v : {
           Variant{"dlib HOG every frame, full 720p frame", {720, 1, false}},
           Variant{"dlib HOG every frame, reduced to 640x360", {360, 1, false}},
           Variant{"live: HOG every 4th frame at 640x360 + following", {360, 4, false}},
           Variant{"live, with landmarks and angles (default)", {}},
       }) {
    LiveFaceRecognizer recognizer(v.options);
    compare(
        v.name, true, [&](size_t i) { return boxesOf(recognizer.recognize(c.samples[i]), size); },
        [&](const cv::Mat& p) {
          LiveFaceRecognizer fresh(v.options);
          size_t faces = 0;
          for (int k = 0; k < 12; ++k) faces += fresh.recognize(kwq::test::sample420f(p, k)).size();
          return faces;
        });
  }
}

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);  // both sides single-threaded
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // Decode the clip and load the landmark model and cascades before timing.
  clip();
  LiveFaceRecognizer::landmarksAvailable();
  benchmark::RegisterBenchmark("ours/recognize_clip_270_frames", recognizeClip)
      ->Unit(benchmark::kMillisecond)
      ->Iterations(1)
      ->Repetitions(3)
      ->ReportAggregatesOnly(true);
  benchmark::RegisterBenchmark("peer/detect_multiscale_27_frames", peerClip)
      ->Unit(benchmark::kMillisecond)
      ->Iterations(1)
      ->Repetitions(3)
      ->ReportAggregatesOnly(true);
  kwq::bench::MedianReporter reporter(kwq::bench::MedianOf::CpuTime);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const double ours = reporter.medianMs("ours/recognize_clip_270_frames");
  const double peer = reporter.medianMs("peer/detect_multiscale_27_frames");
  if (ours > 0 && peer > 0) {
    std::printf("\nmeasure | ours ms | peer ms | ratio | target\n");
    kwq::bench::printRatioRow(
        "recognize() per frame vs detectMultiScale(default cascade), 720p, CPU",
        ours / static_cast<double>(clip().samples.size()),
        peer / static_cast<double>((clip().samples.size() + 9) / 10), "<= 0.25");
  }
  printComparison();
  benchmark::Shutdown();
  return 0;
}
