// Shows a progress circle in the installed widget (offscreen) and checks the picture.
#include <kwqimage/KWQImage.h>
#include <kwqimage/qt/KWQViewWidget.h>

#include <QApplication>
#include <cstdio>

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  auto circle = kwq::KWQProgressCircleView::create({0, 0, 0, 0});
  circle->setTrackColor(kwq::Color::redColor());
  circle->setValue(100, false);
  kwq::qt::KWQViewWidget widget(circle);
  widget.resize(100, 100);
  circle->displayIfNeeded();
  const QImage image = widget.renderImage();
  if (image.isNull()) return 1;
  const QColor ring = image.pixelColor(50, 3);  // full ring at the top
  std::printf("ring %d %d %d\n", ring.red(), ring.green(), ring.blue());
  return ring.red() > 200 && ring.green() < 50 ? 0 : 2;
}
