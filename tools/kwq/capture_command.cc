#include "kwq/capture_command.h"

#include <algorithm>

#include <glib.h>

#include <atomic>
#include <csignal>
#include <fstream>

#include <kwqimage/KWQCameraRollHelper.h>
#include <kwqimage/KWQVideoHelper.h>
#include <kwqimage/SyntheticCamera.h>

#include "kwq/capture_camera.h"
#include "kwq/capture_files.h"
#include "kwq/capture_monitor.h"
#include "kwq/capture_progress.h"
#include "kwq/capture_results.h"
#include "kwq/card_output.h"
#include "kwq/repeated_lines.h"

namespace kwq::tool {
namespace {

std::atomic<bool> gInterrupted{false};
extern "C" void onInterrupt(int) {
  gInterrupted = true;
}

struct Loop {
  const CaptureOptions* options = nullptr;
  const CardOutput* card = nullptr;  // with card captures: the live guidance word
  const CaptureMonitor* monitor = nullptr;
  KWQVideoHelper* engine = nullptr;
  CaptureProgress* progress = nullptr;
  std::shared_ptr<ShapeLayer> outline;  // the host's barcode outline, when a preview is drawn
  bool toggled = false;
  Clock::time_point start;
  bool done = false;
  bool stalled = false;
  std::optional<CaptureRuntimeError> cameraError;  // the camera was unplugged or failed
};

// Main thread, every 100 ms: the camera switch, the outline, progress, and whether the run is
// over.
gboolean onTick(gpointer data) {
  Loop& loop = *static_cast<Loop*>(data);
  const CaptureOptions& options = *loop.options;
  const Clock::time_point now = Clock::now();
  const uint64_t frames = loop.monitor->frames();
  if (gInterrupted) loop.done = true;
  if (options.toggleAt && !loop.toggled && frames >= *options.toggleAt) {
    loop.engine->toggleCameraWithAnimation(true);
    loop.toggled = true;
  }
  // The engine lets go of the outline layer whenever no code is outlined; a host that wants
  // outlines hands it back, emptied.
  if (loop.outline && !loop.engine->barcodeLineLayer()) {
    loop.outline->setPath({});
    loop.engine->previewLayer()->addSublayer(loop.outline);
    loop.engine->setBarcodeLineLayer(loop.outline);
  }
  if (options.frames && frames >= *options.frames) loop.done = true;
  if (options.seconds &&
      std::chrono::duration<double>(now - loop.start).count() >= *options.seconds)
    loop.done = true;
  // A camera that delivers nothing (or stops) ends the run rather than hanging it.
  const auto last = loop.monitor->lastArrival();
  if ((!last && now - loop.start > std::chrono::seconds(10)) ||
      (last && now - *last > std::chrono::seconds(5))) {
    loop.done = loop.stalled = true;
  }
  loop.progress->update(*loop.monitor, *loop.engine, loop.card, now, loop.done);
  return loop.done ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

}  // namespace

int runCapture(const CaptureOptions& options, std::ostream& out, std::ostream& err) {
  if (!checkCaptureOptions(options, err)) return 2;
  // The library's log lines, each once (a full disk repeats one for every frame).
  RepeatedLines logLines(err);
  const std::shared_ptr<CaptureDevice> camera = setUpCamera(options, err);
  if (!camera) return 2;
  auto engine = KWQVideoHelper::create(AVCaptureSessionPresetHigh, camera->position(),
                                       AVLayerVideoGravityResizeAspect, kPixelFormat420f);
  if (!engine || engine->device() != camera) {
    err << "kwq capture: the engine could not use camera " << camera->uniqueID() << '\n';
    return 2;
  }
  engine->setShouldDetectCardRect(options.cardMode);
  if (options.codes) {
    auto wanted = [&](const char* name) {
      return std::find(options.codes->begin(), options.codes->end(), name) != options.codes->end();
    };
    engine->UpdateAVCaptureMetadataOutput(AVMetadataObjectTypePDF417Code, wanted("pdf417"));
    engine->UpdateAVCaptureMetadataOutput(AVMetadataObjectTypeQRCode, wanted("qr"));
    engine->UpdateAVCaptureMetadataOutput(KWQMetadataObjectTypeMRZ, wanted("mrz"));
  }
  if (options.record) KWQCameraRollHelper::getInstance().setVideoCodec(options.codec);
  engine->setRecordCameraData(options.record);
  // As a host shows it: a view of the preview, with the centre box in face mode. Faces are
  // measured in the view's points.
  const Size viewSize{static_cast<double>(options.previewWidth),
                      static_cast<double>(options.previewHeight)};
  const auto view = engine->getPreviewView({0, 0, viewSize.width, viewSize.height},
                                           /*withCenterBox=*/!options.cardMode);

  std::ofstream events;
  if (!options.events.empty()) {
    events.open(options.events, std::ios::trunc);
    if (!events) {
      err << "kwq capture: cannot write events to '" << options.events << "'\n";
      return 2;
    }
  }
  auto metadata = std::make_shared<MetadataMonitor>(engine);
  if (auto output = engine->metaOutput())
    output->setMetadataObjectsDelegate(
        metadata, std::shared_ptr<DispatchQueue>(std::shared_ptr<void>(), &DispatchQueue::main()));
  auto monitor = std::make_shared<CaptureMonitor>(engine, options.cardMode, options.frames,
                                                  metadata, events.is_open() ? &events : nullptr);
  // Card captures (--out, or the per-frame analysis beside a recording) put the card output
  // in front of the monitor as the engine's delegate.
  std::shared_ptr<CardOutput> card;
  if (options.cardMode && (!options.outDir.empty() || options.record))
    card = std::make_shared<CardOutput>(monitor, options.record);
  if (card)
    engine->setDelegate(card);
  else
    engine->setDelegate(monitor);
  const auto output = engine->videoDataOutput();
  const auto frameQueue = output->sampleBufferCallbackQueue();
  output->setSampleBufferDelegate(monitor, frameQueue);
  std::optional<RecordedMovie> movie;
  if (options.record) movie.emplace();

  const bool synthetic = isSyntheticCamera(*camera);
  Loop loop;
  loop.options = &options;
  loop.monitor = monitor.get();
  loop.card = card.get();
  loop.engine = engine.get();
  if (!options.preview.empty()) {
    loop.outline = ShapeLayer::layer();
    loop.outline->setStrokeColor(Color::greenColor());
    loop.outline->setFillColor(std::nullopt);
    loop.outline->setLineWidth(3.0);
  }
  loop.start = Clock::now();
  // JSON alone on stdout, for scripts.
  CaptureProgress progress(options.json ? err : out, options, synthetic, loop.start);
  loop.progress = &progress;
  gInterrupted = false;
  const auto previousHandler = std::signal(SIGINT, onInterrupt);

  // An unplugged or failing camera ends the run at once (on the main queue, like the tick).
  engine->session()->setRuntimeErrorHandler([&loop](const CaptureRuntimeError& e) {
    loop.cameraError = e;
    loop.done = true;
  });
  engine->startVideoCapture();
  g_timeout_add(100, onTick, &loop);
  while (!loop.done) g_main_context_iteration(nullptr, TRUE);

  // The still and the preview need the camera still running.
  const bool stillSaved =
      !options.still.empty() && saveStill(*engine, *monitor, options.still, err);
  const bool previewSaved =
      !options.preview.empty() && savePreview(*view, viewSize, options.preview, err);

  engine->stopVideoCapture();
  engine->session()->setRuntimeErrorHandler(nullptr);
  frameQueue->sync([] {});  // a frame step under way at the stop has finished
  std::signal(SIGINT, previousHandler);
  if (events.is_open()) events.close();

  const CaptureMonitor::Summary s = monitor->summary();
  CaptureResults results;
  addMeasures(
      results, *camera, options, s, monitor->dropped(*output, synthetic),
      engine->metaOutput() ? engine->metaOutput()->statistics() : MetadataOutputStatistics{},
      metadata->frames());
  int status = 0;
  if (loop.cameraError) {
    const CaptureRuntimeError& e = *loop.cameraError;
    err << "kwq capture: the camera " << e.deviceName << " (" << e.deviceUniqueID << ") "
        << (e.disconnected ? "was disconnected"
            : e.atStart    ? "could not start"
                           : "failed")
        << ": " << e.message << '\n';
    status = e.disconnected ? kExitCameraDisconnected : 1;
  } else if (loop.stalled) {
    err << "kwq capture: the camera " << (s.frames ? "stopped delivering" : "delivered no")
        << " frames\n";
    status = 1;
  }
  if (movie && !movie->addTo(results, card.get(), err)) status = 1;
  if (!options.snapshot.empty() &&
      !addSnapshot(results, s.firstStableSample, options.snapshot, err))
    status = 1;
  if (card && !options.outDir.empty()) {
    const bool written = card->write(options.outDir, err);
    results.addFile("card", "card", options.outDir + "/card.png", written);
    if (!written) status = 1;
  }
  if (!options.still.empty()) {
    results.addFile("still", "still", options.still, stillSaved);
    if (!stillSaved) status = 1;
  }
  if (!options.preview.empty()) {
    results.addFile("preview", "preview", options.preview, previewSaved);
    if (!previewSaved) status = 1;
  }
  if (options.toggleAt) {
    const auto now = engine->device();
    results.addFile("camera_after_toggle", "camera after the switch", now ? now->uniqueID() : "",
                    now != nullptr);
  }
  logLines.printCounts();
  results.print(out, options.json);
  // Clearing blocks the engine queued for the main thread.
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  CaptureDevice::resetDevices();
  return status;
}

}  // namespace kwq::tool
