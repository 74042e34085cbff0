// `kwq view` end to end on the test's Xvfb (the tool inherits DISPLAY).

#include <QImage>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace kwq {
namespace {

// Runs `command`, returning its exit status and collecting its standard output.
int run(const std::string& command, std::string& output) {
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return -1;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, pipe)) output += buffer;
  return ::pclose(pipe);
}

TEST(SimpleCaptureViewToolTest, KwqViewShowsThePreviewAndSavesItsWindow) {
  const std::string shot = test::outputDir() + "/kwq_view_screenshot.png";
  std::remove(shot.c_str());
  std::string output;
  const int status =
      run(std::string(KWQ_TOOL_PATH) + " view --seconds 4 --screenshot " + shot, output);
  ASSERT_EQ(status, 0) << output;
  EXPECT_NE(output.find("camera Synthetic Back Camera"), std::string::npos) << output;
  EXPECT_NE(output.find("frames shown "), std::string::npos) << output;
  // Camera frames reached the window: more than one shown (not a single still picture).
  unsigned shown = 0;
  const auto at = output.find("frames shown ");
  ASSERT_EQ(std::sscanf(output.c_str() + at, "frames shown %u", &shown), 1);
  EXPECT_GT(shown, 10u) << output;

  const QImage image(QString::fromStdString(shot));
  ASSERT_FALSE(image.isNull());
  EXPECT_GE(image.width(), 320);
  // Above the button row the picture is the synthetic scene, not black.
  int bright = 0, samples = 0;
  for (int y = 0; y < image.height() * 3 / 4; y += 8)
    for (int x = 0; x < image.width(); x += 8, ++samples) {
      const QColor p = image.pixelColor(x, y);
      bright += p.red() + p.green() + p.blue() > 90;
    }
  EXPECT_GT(bright, samples / 2);

  // Unwritable screenshot path: exit 1, with the reason.
  std::string failed;
  EXPECT_EQ(run(std::string(KWQ_TOOL_PATH) +
                    " view --seconds 0.5 --screenshot /nonexistent/dir/x.png 2>&1",
                failed),
            1 << 8)
      << failed;
  EXPECT_NE(failed.find("cannot write"), std::string::npos) << failed;
}

}  // namespace
}  // namespace kwq
