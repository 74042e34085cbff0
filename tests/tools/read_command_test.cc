#include "kwq/read_command.h"

#include <filesystem>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "tests/support/code_scenes.h"

namespace kwq::tool {
namespace {

TEST(ReadCommand, OneJsonLinePerFileWithEveryCodeAndTheTableEscapesControlCharacters) {
  const std::filesystem::path dir = std::filesystem::path(KWQ_TEST_OUTPUT_DIR) / "read_command";
  std::filesystem::create_directories(dir);
  const cv::Mat photo = test::loadPhoto(KWQ_SAMPLE_DATA_DIR, "building.jpg", 1280, 720);
  ASSERT_FALSE(photo.empty()) << "opencv-doc's building.jpg";
  test::CodePose turned;
  turned.centre = {420, 360};
  turned.modulePixels = 3;
  turned.rotationDeg = 35;
  cv::Mat both =
      test::printSymbol(photo, test::writeSymbol(test::CodeKind::PDF417, "TURNED\nLICENCE"), turned)
          .bgra;
  test::CodePose beside = turned;
  beside.centre = {1000, 360};
  beside.rotationDeg = 0;
  beside.modulePixels = 5;
  both =
      test::printSymbol(both, test::writeSymbol(test::CodeKind::QR, "QR \"BESIDE\""), beside).bgra;
  const std::string codes = (dir / "codes.png").string(), none = (dir / "none.png").string();
  ASSERT_TRUE(cv::imwrite(codes, both));
  ASSERT_TRUE(cv::imwrite(none, photo));
  const std::string missing = (dir / "missing.png").string();

  std::ostringstream out, err;
  EXPECT_EQ(runRead({codes, missing, none}, true, out, err), 1);
  std::istringstream lines(out.str());
  std::string first, second, extra;
  ASSERT_TRUE(std::getline(lines, first));
  ASSERT_TRUE(std::getline(lines, second));
  EXPECT_FALSE(std::getline(lines, extra));
  EXPECT_EQ(first.find("{\"file\":\"" + codes + "\",\"codes\":[{"), 0u) << first;
  EXPECT_NE(first.find("\"type\":\"pdf417\",\"text\":\"TURNED\\nLICENCE\",\"corners\":[["),
            std::string::npos)
      << first;
  EXPECT_NE(first.find("\"type\":\"qr\",\"text\":\"QR \\\"BESIDE\\\"\""), std::string::npos)
      << first;
  EXPECT_EQ(second, "{\"file\":\"" + none + "\",\"codes\":[],\"mrz\":null}");
  EXPECT_EQ(err.str(), "kwq read: " + missing + ": no such file\n");

  std::ostringstream table, quiet;
  EXPECT_EQ(runRead({codes}, false, table, quiet), 0);
  EXPECT_NE(table.str().find("TURNED\\x0ALICENCE"), std::string::npos) << table.str();
  EXPECT_EQ(table.str().find('\n' + std::string("LICENCE")), std::string::npos);
}

}  // namespace
}  // namespace kwq::tool
