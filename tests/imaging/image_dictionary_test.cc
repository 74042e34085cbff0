#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "imaging/pixels.h"
#include "kwqimage/KWQImageDictionary.h"
#include "support/test_support.h"

namespace kwq {
namespace {

namespace fs = std::filesystem;
using D = KWQImageDictionary;

class ImageDictionary : public testing::Test {
 protected:
  void SetUp() override {
    folder_ = test::outputDir() + "/store-" +
              testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(folder_);
    D::setDocumentsDirectory(folder_);
  }
  void TearDown() override { D::setDocumentsDirectory(""); }

  std::set<std::string> entries() const {
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(folder_)) names.insert(e.path().filename());
    return names;
  }
  void touch(const std::string& name) const { std::ofstream(folder_ + "/" + name) << "x"; }

  std::string folder_;
};

TEST_F(ImageDictionary, EveryLayoutRoundTripsAtOddSizes) {
  std::mt19937 rng(3);
  for (PixelLayout layout : {PixelLayout::Gray8, PixelLayout::RGB24, PixelLayout::RGBA32}) {
    for (auto [w, h] : {std::pair<size_t, size_t>{1, 1}, {7, 5}, {33, 17}}) {
      const Image img = test::randomImage(rng, layout, w, h, /*rowPadding=*/3);
      ASSERT_TRUE(D::saveImageAsPNG(img, "card"));
      const Image back = D::loadImageWithFileName("card");
      EXPECT_EQ(back.layout(), layout);
      EXPECT_EQ(test::maxDifference(back, img), 0) << w << "x" << h;
    }
  }
  EXPECT_TRUE(fs::is_regular_file(folder_ + "/card.png"));
  // Premultiplied BGRA comes back as straight RGBA that premultiplies to the same pixels.
  const Image straight = test::randomImage(rng, PixelLayout::RGBA32, 9, 7);
  const Image bgra = straight.converted(PixelLayout::BGRA32Premultiplied);
  ASSERT_TRUE(D::saveImageAsPNG(bgra, "bgra"));
  const Image back = D::loadImageWithFileName("bgra");
  ASSERT_EQ(back.layout(), PixelLayout::RGBA32);
  EXPECT_LE(test::maxDifference(back.converted(PixelLayout::BGRA32Premultiplied), bgra), 1);
  const uint8_t opaque[4] = {10, 20, 30, 255};
  const Image solid = Image::filled(PixelLayout::BGRA32Premultiplied, 3, 3, opaque);
  ASSERT_TRUE(D::saveImageAsPNG(solid, "solid"));
  EXPECT_EQ(test::pixelAt(D::loadImageWithFileName("solid"), 1, 1), (test::Px{30, 20, 10, 255}));

  EXPECT_FALSE(D::saveImageAsPNG(Image(), "none"));
  EXPECT_FALSE(D::saveImageAsPNG(Image::withoutBitmap(Size{4, 4}), "none"));
  EXPECT_FALSE(D::saveImageAsPNG(solid, "missing-folder/card"));
  EXPECT_FALSE(fs::exists(folder_ + "/none.png"));
  EXPECT_TRUE(D::loadImageWithFileName("never-saved").isNull());
  touch("garbage.png");
  EXPECT_TRUE(D::loadImageWithFileName("garbage").isNull());
}

TEST_F(ImageDictionary, LoadsWhatAnotherEncoderWrote) {
  fs::create_directories(folder_);
  fs::copy_file(test::samplePath("opencv-logo.png"), folder_ + "/logo.png");
  const Image logo = D::loadImageWithFileName("logo");
  ASSERT_EQ(logo.layout(), PixelLayout::RGBA32);
  EXPECT_EQ(logo.width(), 600u);
  EXPECT_EQ(logo.height(), 794u);
  EXPECT_EQ(test::pixelAt(logo, 0, 0)[3], 0);  // transparent margin
  ASSERT_TRUE(D::saveImageAsPNG(logo, "logo-again"));
  EXPECT_EQ(test::maxDifference(D::loadImageWithFileName("logo-again"), logo), 0);
}

TEST_F(ImageDictionary, DeleteFollowsTheWildcardRules) {
  const std::set<std::string> all = {"card.png", "other.png", "card.jpg", "card.PNG",
                                     "card.*",   "notes.txt", ".png"};
  const auto fill = [&] {
    fs::create_directories(folder_ + "/dir.png");
    touch("dir.png/inside.png");
    for (const auto& n : all) touch(n);
  };
  const auto without = [&](std::set<std::string> names, std::initializer_list<const char*> gone) {
    for (const char* g : gone) names.erase(g);
    return names;
  };
  fill();
  D::deleteImageWithFileName("card", "png");
  D::deleteImageWithFileName("card", "*");  // literal asterisk
  std::set<std::string> expected = without(all, {"card.png", "card.*"});
  expected.insert("dir.png");
  EXPECT_EQ(entries(), expected);
  D::deleteImageWithFileName("*", "png");  // exact and case-sensitive; folders too
  EXPECT_EQ(entries(), without(all, {"card.png", "card.*", "other.png"}));
  fill();
  D::deleteImageWithFileName("*", "*");
  EXPECT_TRUE(entries().empty());
  D::deleteImageWithFileName("absent", "png");  // failures are silent
}

// A writer killed at random moments never leaves a torn file: the name always decodes to one
// of the two pictures it alternates between.
TEST_F(ImageDictionary, SavesSurviveTheWriterBeingKilled) {
  std::mt19937 rng(11);
  const Image a = test::randomImage(rng, PixelLayout::RGBA32, 256, 256);
  const Image b = test::randomImage(rng, PixelLayout::Gray8, 301, 199);
  ASSERT_TRUE(D::saveImageAsPNG(a, "crash"));
  std::uniform_int_distribution<int> delayUs(0, 8000);
  for (int round = 0; round < 20; ++round) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(ready[0]);
      for (unsigned i = 0;; ++i) {
        if (!D::saveImageAsPNG(i % 2 ? a : b, "crash")) _exit(2);
        if (i == 0 && write(ready[1], "r", 1) != 1) _exit(3);
      }
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);  // one save completed
    close(ready[0]);
    std::this_thread::sleep_for(std::chrono::microseconds(delayUs(rng)));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed on its own";
    const Image back = D::loadImageWithFileName("crash");
    ASSERT_FALSE(back.isNull()) << "round " << round;
    EXPECT_TRUE(test::maxDifference(back, a) == 0 || test::maxDifference(back, b) == 0);
  }
  for (const std::string& name : entries())
    EXPECT_TRUE(name == "crash.png" || name.rfind(".crash.png.", 0) == 0) << name;
}

}  // namespace
}  // namespace kwq
