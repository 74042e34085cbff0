#include "kwq/view_command.h"

#if KWQ_HAVE_QT
#include <QApplication>
#include <QHBoxLayout>
#include <QImage>
#include <QKeySequence>
#include <QPixmap>
#include <QPushButton>
#include <QScreen>
#include <QShortcut>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iomanip>
#include <memory>
#include <mutex>

#include <kwqimage/CaptureDevice.h>
#include <kwqimage/CaptureSession.h>
#include <kwqimage/DispatchQueue.h>
#include <kwqimage/Image.h>
#include <kwqimage/KWQProgressCircleView.h>
#include <kwqimage/KWQSimpleCaptureView.h>
#include <kwqimage/KWQVideoHelper.h>
#include <kwqimage/KWQVideoHelperDelegate.h>
#include <kwqimage/View.h>
#include <kwqimage/qt/KWQViewWidget.h>

namespace kwq::tool {
namespace {

// Frames in a row the engine wants before it calls a card stable.
constexpr int kStableFrames = 6;

// The engine's delegate while the tool runs: stills go on to the capture view, and being a
// frame delegate turns card detection on (the engine runs it only for one).
class Host : public KWQFrameDelegate, public KWQStillImageDelegate {
 public:
  explicit Host(std::weak_ptr<KWQSimpleCaptureView> view) : view_(std::move(view)) {}
  void getLastSampleBuffer(const SampleBuffer&, Rect, double, double,
                           const std::optional<std::string>&) override {
    ++stableFrames;
  }
  void getNewStillImage(const Image& image) override {
    if (auto view = view_.lock()) view->getNewStillImage(image);
  }
  std::atomic<uint64_t> stableFrames{0};

 private:
  std::weak_ptr<KWQSimpleCaptureView> view_;
};

QImage toQImage(const Image& image) {
  QImage::Format format = QImage::Format_Invalid;
  switch (image.layout()) {
    case PixelLayout::Gray8:
      format = QImage::Format_Grayscale8;
      break;
    case PixelLayout::RGB24:
      format = QImage::Format_RGB888;
      break;
    case PixelLayout::RGBA32:
      format = QImage::Format_RGBA8888;
      break;
    case PixelLayout::BGRA32Premultiplied:
      format = QImage::Format_ARGB32_Premultiplied;
      break;
  }
  if (image.isNull()) return {};
  return QImage(image.bytes().data(), static_cast<int>(image.width()),
                static_cast<int>(image.height()), static_cast<qsizetype>(image.bytesPerRow()),
                format)
      .copy();
}

bool hasDisplay() {
  return std::getenv("DISPLAY") || std::getenv("WAYLAND_DISPLAY") || std::getenv("QT_QPA_PLATFORM");
}

}  // namespace

int runView(int argc, char** argv, const ViewOptions& options, std::ostream& out,
            std::ostream& err) {
  if (!hasDisplay()) {
    err << "kwq view: no display (set DISPLAY, or run under xvfb-run)\n";
    return 2;
  }
  QApplication app(argc, argv);

  // The scene: the capture view filling the window, the circle in its top right corner.
  auto root = View::create({0, 0, 0, 0});
  auto capture = KWQSimpleCaptureView::create({0, 0, 0, 0});
  auto circle = KWQProgressCircleView::create({0, 0, 88, 88});
  circle->setBorderSize(3);
  circle->setBorderOffsetMargin(3);
  circle->setInterierOffsetMargin(22);
  circle->setTintColor(Color{0, 0, 0, 0.45});
  circle->setBorderColor(Color::whiteColor());
  root->addSubview(capture);
  root->addSubview(circle);

  const auto engine = capture->videoHelper();
  if (!engine) {
    err << "kwq view: the capture engine could not be made\n";
    return 1;
  }
  // A machine whose only camera is a front one (a laptop's webcam): show that one.
  if (!engine->device() && KWQSimpleCaptureView::isCameraAvailable())
    capture->toggleCameraWithAnimation(false);
  auto host = std::make_shared<Host>(capture);
  engine->setDelegate(host);
  engine->setShouldDetectCardRect(true);
  const auto camera = engine->device();
  out << "camera " << (camera ? camera->localizedName() : std::string("none")) << '\n';

  QWidget window;
  window.setWindowTitle("kwq view");
  auto* picture = new qt::KWQViewWidget(root);
  picture->setMinimumSize(320, 180);
  auto layoutScene = [&] {
    const Rect b = root->bounds();
    capture->setFrame({0, 0, b.width(), b.height()});
    circle->setFrame({b.width() - 100, 12, 88, 88});
  };
  auto* still = new QPushButton("&Still (S)");
  auto* flip = new QPushButton("Switch &camera (C)");
  auto* record = new QPushButton("&Record (R)");
  auto* quit = new QPushButton("&Quit (Q)");
  auto* buttons = new QHBoxLayout;
  for (QPushButton* b : {still, flip, record, quit}) buttons->addWidget(b);
  auto* layout = new QVBoxLayout(&window);
  layout->setContentsMargins(0, 0, 0, 6);
  layout->addWidget(picture, 1);
  layout->addLayout(buttons);
  window.resize(960, 580);

  int stills = 0;
  auto takeStill = [&] {
    const int number = ++stills;
    const std::string path = options.stillsDir + "/kwq-still-" + std::to_string(number) + ".png";
    capture->captureImage([path](const Image& image, const std::optional<Error>& error) {
      // On the engine's queue: save there, report on the main queue.
      const bool saved = !error && toQImage(image).save(QString::fromStdString(path), "PNG");
      std::string line =
          saved ? "saved " + path : "still not saved: " + (error ? error->domain : path);
      DispatchQueue::main().async([line] { std::printf("%s\n", line.c_str()); });
    });
  };
  bool recording = false;
  auto toggleRecording = [&] {
    // The recorder starts and stops with the engine, so the video restarts around the change.
    capture->stopVideo();
    recording = !recording;
    engine->setRecordCameraData(recording);
    capture->startVideo();
    record->setText(recording ? "Stop &recording (R)" : "&Record (R)");
    out << (recording ? "recording" : "recording stopped") << std::endl;
  };
  QObject::connect(still, &QPushButton::clicked, takeStill);
  QObject::connect(flip, &QPushButton::clicked, [&] { capture->toggleCameraWithAnimation(true); });
  QObject::connect(record, &QPushButton::clicked, toggleRecording);
  QObject::connect(quit, &QPushButton::clicked, &app, &QApplication::quit);
  for (auto [key, button] : {std::pair{Qt::Key_S, still}, std::pair{Qt::Key_C, flip},
                             std::pair{Qt::Key_R, record}, std::pair{Qt::Key_Q, quit}}) {
    auto* shortcut = new QShortcut(QKeySequence(key), &window);
    QObject::connect(shortcut, &QShortcut::activated, button, &QPushButton::click);
  }

  // Frames shown: paints that put a newer camera frame on screen.
  const auto output = engine->videoDataOutput();
  uint64_t lastFrame = 0, framesShown = 0;
  QObject::connect(picture, &qt::KWQViewWidget::painted, [&] {
    const uint64_t frame = output ? output->deliveredFrameCount() : 0;
    if (frame != lastFrame) ++framesShown;
    lastFrame = frame;
  });
  // The circle follows the card: a sixth of the ring per frame in a row with the card's shape.
  QTimer progress;
  QObject::connect(&progress, &QTimer::timeout, [&] {
    layoutScene();
    const int run = std::clamp(engine->consecutiveDetectionFrames(), 0, kStableFrames);
    circle->setTrackColor(run >= kStableFrames ? Color::greenColor() : Color{1.0, 0.75, 0.0, 1});
    circle->setValue(100.0 * run / kStableFrames);
  });
  progress.start(50);

  window.show();
  layoutScene();
  capture->startVideo();
  const auto started = std::chrono::steady_clock::now();
  const uint64_t firstFrame = output ? output->deliveredFrameCount() : 0;

  int code = 0;
  auto finish = [&] {
    if (!options.screenshot.empty()) {
      QPixmap shot = QGuiApplication::primaryScreen()->grabWindow(window.winId());
      if (shot.isNull()) shot = window.grab();
      if (shot.save(QString::fromStdString(options.screenshot), "PNG")) {
        out << "screenshot " << options.screenshot << '\n';
      } else {
        err << "kwq view: cannot write " << options.screenshot << '\n';
        code = 1;
      }
    }
    app.quit();
  };
  if (options.seconds)
    QTimer::singleShot(std::chrono::milliseconds(static_cast<int64_t>(*options.seconds * 1000)),
                       &app, finish);
  app.exec();

  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  const uint64_t cameraFrames = (output ? output->deliveredFrameCount() : 0) - firstFrame;
  capture->stopVideo();
  if (circle->animating()) circle->stopAnimating();
  out << std::fixed << std::setprecision(1) << "frames shown " << framesShown << " in " << seconds
      << " s (" << framesShown / std::max(seconds, 1e-9) << " fps); camera frames " << cameraFrames
      << " (" << cameraFrames / std::max(seconds, 1e-9) << " fps); stable-card frames "
      << host->stableFrames << "; stills " << stills << '\n';
  return code;
}

}  // namespace kwq::tool

#else  // built without Qt

namespace kwq::tool {

int runView(int, char**, const ViewOptions&, std::ostream&, std::ostream& err) {
  err << "kwq view: this kwq was built without Qt 6 (install qt6-base-dev and rebuild)\n";
  return 2;
}

}  // namespace kwq::tool

#endif
