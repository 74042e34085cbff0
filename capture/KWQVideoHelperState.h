#pragma once

// The capture engine's fields, shared by the engine's source files (configuration, frames,
// faces, barcodes, card detection, stills).
//
// Flags and numbers are atomics; rectangles, text, objects and lists sit behind one mutex,
// taken only for a copy. Hold no lock while calling out (delegate, recorder, device, session).

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "capture/card_capture.h"
#include "capture/card_detection.h"
#include "kwqimage/DispatchQueue.h"
#include "kwqimage/KWQVideoHelper.h"

namespace kwq {

struct KWQVideoHelper::State {
  // Made by set-up and never replaced.
  std::shared_ptr<CaptureSession> session;
  std::shared_ptr<VideoDataOutput> videoDataOutput;
  std::shared_ptr<StillImageOutput> stillImageOutput;
  std::shared_ptr<PreviewLayer> previewLayer;
  std::shared_ptr<CaptureConnection> captureConnection;  // the video output's connection
  std::shared_ptr<DispatchQueue> videoDataOutputQueue;   // "VideoDataOutputQueue"
  std::shared_ptr<DispatchQueue> sessionQueue;           // "com.kwqimage.videoCaptureQueue"

  std::atomic<bool> showCenterBox{false};
  std::atomic<bool> showBarcodeBoundingBox{false};
  std::atomic<bool> showFaceBoundingBox{false};
  std::atomic<bool> shouldDetectCardRect{false};
  std::atomic<bool> hasYawAngle{false};
  std::atomic<bool> hasRollAngle{false};
  std::atomic<bool> isHeadCentered{false};
  std::atomic<bool> recordCameraData{false};
  std::atomic<double> minHeadSize{0.0};
  std::atomic<double> maxHeadSize{0.0};
  std::atomic<double> rollAngle{0.0};
  std::atomic<double> yawAngle{0.0};

  // Only the video queue touches these: the best card capture and the frames it has counted.
  CardCaptureKeeper cardKeeper;
  uint64_t cardCaptureFrames = 0;

  mutable std::mutex mutex;  // guards the fields below
  Rect faceRect;
  Rect barcodeRect;
  std::optional<std::string> parsedData;
  CardDetectionState card;  // threshold, consecutive frames, card rectangle and centre
  std::shared_ptr<const platform::RectangleDetector> rectDetector;  // made on first use
  std::weak_ptr<KWQVideoHelperDelegate> delegate;
  std::shared_ptr<CaptureDevice> device;
  std::shared_ptr<MetadataOutput> metaOutput;
  std::vector<std::string> metaObjects;
  std::shared_ptr<Layer> centerLayer;
  std::shared_ptr<Layer> primaryLayer;
  std::shared_ptr<ShapeLayer> barcodeLineLayer;
  std::map<int64_t, std::shared_ptr<Layer>> avfFaceLayers;

  template <class T>
  T get(T State::*field) const {
    std::lock_guard lock(mutex);
    return this->*field;
  }
  template <class T, class V>
  void set(T State::*field, V&& value) {
    std::lock_guard lock(mutex);
    this->*field = std::forward<V>(value);
  }
};

}  // namespace kwq
