// The platform pieces behind the imaging layer: the image context, the bitmap context's exact
// shortcuts, camera sample buffers, atomic file writes, the user's folders and the fence
// around third-party decoders.

#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "imaging/pixels.h"
#include "kwqimage/KWQImagingHelper.h"
#include "kwqimage/SampleBuffer.h"
#include "platform/draw/exact_paths.h"
#include "platform/draw/image_context.h"
#include "platform/foundation/fault_fence.h"
#include "platform/foundation/file_io.h"
#include "platform/foundation/user_dirs.h"
#include "support/test_support.h"

namespace kwq {
namespace {

using platform::ImageContext;
using test::pixelAt;
using test::Px;

struct ShortcutsOff {
  ShortcutsOff() { platform::setExactShortcutsEnabled(false); }
  ~ShortcutsOff() { platform::setExactShortcutsEnabled(true); }
};

TEST(ImageContext, CanvasSizesRoundUpAndRefuseWhatCannotBeDrawn) {
  EXPECT_EQ(ImageContext::pixelExtent(2.0000000000000004), 2u);  // transform noise
  EXPECT_EQ(ImageContext::pixelExtent(141.42), 142u);
  for (double bad : {0.0, -3.0, 1e-9, 32768.0, std::nan(""), double{INFINITY}})
    EXPECT_EQ(ImageContext::pixelExtent(bad), 0u) << bad;
  EXPECT_TRUE(ImageContext(Size{0, 5}).takeImage().isNull());
}

TEST(ImageContext, StrokesAndFillsWithColoursAndSurvivesASingularTransform) {
  ImageContext ctx(Size{20, 20});
  ctx.saveState();
  ctx.scale(0.0, 0.0);  // nothing can be drawn under it, and the context must stay usable
  ctx.fillRect(Rect(0, 0, 20, 20));
  ctx.restoreState();
  ctx.setStrokeColor(Color::redColor());
  ctx.strokeRect(Rect(5, 5, 10, 10), 2.0);  // covers 4..6 around each edge
  ctx.setFillColor(Color{0, 0, 1, 0.5});
  ctx.fillRect(Rect(8, 8, 4, 4));
  const Image img = ctx.takeImage();
  ASSERT_EQ(img.width(), 20u);
  EXPECT_EQ(pixelAt(img, 4, 10), (Px{0, 0, 255, 255}));
  EXPECT_EQ(pixelAt(img, 10, 5), (Px{0, 0, 255, 255}));
  EXPECT_EQ(pixelAt(img, 4, 4), (Px{0, 0, 255, 255}));  // mitred corner
  EXPECT_EQ(pixelAt(img, 7, 7), (Px{0, 0, 0, 0}));
  EXPECT_EQ(pixelAt(img, 2, 2), (Px{0, 0, 0, 0}));
  const Px blue = pixelAt(img, 9, 9);
  EXPECT_NEAR(blue[0], 128, 1);
  EXPECT_NEAR(blue[3], 128, 1);
  EXPECT_TRUE(ctx.takeImage().isNull());  // taken once
}

// Each orientation drawn upright must show the picture as the orientation describes it.
TEST(ImageContext, DrawImageAppliesEveryOrientationAndDrawBitmapIsYUp) {
  const Image src = test::distinctBGRA(3, 2);
  const size_t W = 3, H = 2;
  using O = ImageOrientation;
  // stored pixel shown at (u, v) of the upright picture
  const std::pair<O, std::function<Px(size_t, size_t)>> cases[] = {
      {O::Up, [&](size_t u, size_t v) { return pixelAt(src, u, v); }},
      {O::Down, [&](size_t u, size_t v) { return pixelAt(src, W - 1 - u, H - 1 - v); }},
      {O::Left, [&](size_t u, size_t v) { return pixelAt(src, W - 1 - v, u); }},
      {O::Right, [&](size_t u, size_t v) { return pixelAt(src, v, H - 1 - u); }},
      {O::UpMirrored, [&](size_t u, size_t v) { return pixelAt(src, W - 1 - u, v); }},
      {O::DownMirrored, [&](size_t u, size_t v) { return pixelAt(src, u, H - 1 - v); }},
      {O::LeftMirrored, [&](size_t u, size_t v) { return pixelAt(src, v, u); }},
      {O::RightMirrored, [&](size_t u, size_t v) { return pixelAt(src, W - 1 - v, H - 1 - u); }},
  };
  for (const auto& [orientation, shown] : cases) {
    const Image oriented = src.withScale(1.0, orientation);
    const Size s = oriented.size();
    ImageContext ctx(s);
    ctx.drawImage(oriented, Rect(0, 0, s.width, s.height));
    const Image out = ctx.takeImage();
    for (size_t v = 0; v < out.height(); ++v)
      for (size_t u = 0; u < out.width(); ++u)
        EXPECT_EQ(pixelAt(out, u, v), shown(u, v)) << static_cast<int>(orientation);
  }
  ImageContext ctx(Size{3, 2});
  ctx.drawBitmap(src, Rect(0, 0, 3, 2));
  const Image flipped = ctx.takeImage();
  EXPECT_EQ(pixelAt(flipped, 0, 0), pixelAt(src, 0, 1));
  EXPECT_EQ(pixelAt(flipped, 2, 1), pixelAt(src, 2, 0));
}

// The shortcuts must not change what is drawn: resizing takes the same samples as Cairo's
// bilinear drawing and differs only by rounding (pixman weighs in 1/128 steps, up to 3 levels
// on noise), right-angle turns give exactly the same bytes.
TEST(ExactShortcuts, GiveWhatTheGeneralPathsGive) {
  std::mt19937 rng(5);
  for (auto [w, h] : {std::pair<size_t, size_t>{64, 48}, {33, 17}, {8, 8}}) {
    const Image src = test::randomImage(rng, PixelLayout::RGBA32, w, h)
                          .converted(PixelLayout::BGRA32Premultiplied);
    for (Size to : {Size{32, 24}, Size{100, 31}, Size{static_cast<double>(w), 7}}) {
      const Image fast = resizeToSize(src, to);
      ShortcutsOff off;
      EXPECT_LE(test::maxDifference(fast, resizeToSize(src, to)), 3)
          << to.width << "x" << to.height;
    }
  }
  for (PixelLayout layout : {PixelLayout::Gray8, PixelLayout::RGB24, PixelLayout::RGBA32,
                             PixelLayout::BGRA32Premultiplied}) {
    for (auto [w, h] : {std::pair<size_t, size_t>{6, 4}, {7, 4}, {6, 5}, {9, 3}}) {
      const Image src = test::randomImage(rng, layout, w, h, 1);
      for (double angle : {0.0, 90.0, -90.0, 180.0, 270.0, -270.0, 360.0, 450.0}) {
        const Image fast = rotatedByAngle(src, angle);
        ShortcutsOff off;
        EXPECT_EQ(test::maxDifference(fast, rotatedByAngle(src, angle)), 0)
            << static_cast<int>(layout) << " " << w << "x" << h << " by " << angle;
      }
    }
  }
}

TEST(SampleBuffer, AllocatesPlanesForEachFormatAndRefusesBadSizes) {
  const PixelBuffer nv12 = PixelBuffer::allocate(kPixelFormat420f, 7, 5, 16);
  ASSERT_EQ(nv12.planeCount(), 2u);
  EXPECT_EQ(nv12.bytesPerRowOfPlane(0), 16u);
  EXPECT_EQ(nv12.widthOfPlane(1), 4u);  // chroma pairs round up
  EXPECT_EQ(nv12.heightOfPlane(1), 3u);
  EXPECT_EQ(PixelBuffer::allocate(kPixelFormatBGRA, 17, 3).bytesPerRowOfPlane(0), 128u);
  EXPECT_TRUE(PixelBuffer::allocate(fourCharCode("yuvs"), 4, 4).isNull());
  EXPECT_TRUE(PixelBuffer::allocate(kPixelFormatBGRA, 0, 4).isNull());
  EXPECT_TRUE(PixelBuffer::allocate(kPixelFormatBGRA, 4, 4, 48).isNull());
  EXPECT_TRUE(PixelBuffer::allocate(kPixelFormatBGRA, SIZE_MAX / 2, 4).isNull());
  EXPECT_TRUE(PixelBuffer::allocate(kPixelFormatBGRA, 1 << 30, 1 << 30).isNull());
}

TEST(SampleBuffer, PixelsAreReachableOnlyWhileLockedAndReleasedOnce) {
  int releases = 0;
  std::vector<uint8_t> memory(4 * 2 * 2, 9);
  {
    const PixelBuffer wrapped = PixelBuffer::wrap(
        kPixelFormatBGRA, 2, 2, {PixelPlane{memory.data(), 8, 2, 2}}, [&] { ++releases; });
    ASSERT_FALSE(wrapped.isNull());
    const SampleBuffer sample(wrapped, MediaTime::fromNanoseconds(40'000'000));
    EXPECT_DOUBLE_EQ(sample.presentationTimeStamp().seconds(), 0.04);
    EXPECT_EQ(wrapped.baseAddressOfPlane(0), nullptr);
    wrapped.lockBaseAddress(kPixelBufferLockReadOnly);
    wrapped.lockBaseAddress();
    wrapped.unlockBaseAddress();
    EXPECT_EQ(wrapped.baseAddressOfPlane(0), memory.data());
    EXPECT_EQ(wrapped.baseAddressOfPlane(1), nullptr);
    wrapped.unlockBaseAddress();
    wrapped.unlockBaseAddress();  // unbalanced: ignored
    EXPECT_FALSE(wrapped.isLocked());
    EXPECT_EQ(releases, 0);
  }
  EXPECT_EQ(releases, 1);
  // Planes that do not fit the format are refused and the memory stays the caller's.
  const auto refused = [&](uint32_t format, std::vector<PixelPlane> planes) {
    return PixelBuffer::wrap(format, 2, 2, std::move(planes), [&] { ++releases; }).isNull();
  };
  EXPECT_TRUE(refused(kPixelFormatBGRA, {PixelPlane{memory.data(), 7, 2, 2}}));
  EXPECT_TRUE(refused(kPixelFormatBGRA, {PixelPlane{nullptr, 8, 2, 2}}));
  EXPECT_TRUE(refused(kPixelFormat420f, {PixelPlane{memory.data(), 2, 2, 2}}));
  EXPECT_TRUE(refused(kPixelFormatBGRA, {PixelPlane{memory.data(), SIZE_MAX, 2, 2}}));
  EXPECT_EQ(releases, 1);
}

TEST(Files, AtomicWritesReplaceWholeFilesWithUsualPermissions) {
  const std::string dir = test::outputDir() + "/atomic";
  std::filesystem::remove_all(dir);
  ASSERT_TRUE(platform::createDirectories(dir));
  const std::string path = dir + "/f.bin";
  const std::vector<uint8_t> first(100000, 1), second{1, 2, 3};
  ASSERT_TRUE(platform::writeFileAtomically(path, first));
  ASSERT_TRUE(platform::writeFileAtomically(path, second));
  EXPECT_EQ(platform::readFile(path, 100), second);
  EXPECT_FALSE(platform::readFile(path, 2).has_value());
  EXPECT_FALSE(platform::readFile(dir, 100).has_value());
  EXPECT_EQ(platform::listDirectory(dir), std::vector<std::string>{"f.bin"});
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  const mode_t mask = umask(022);
  umask(mask);
  EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask);
  EXPECT_FALSE(platform::writeFileAtomically(dir + "/missing/f.bin", second));
  EXPECT_EQ(platform::listDirectory(dir).size(), 1u);
}

TEST(Files, DocumentsFolderFollowsXdgUnlessItNamesHome) {
  EXPECT_EQ(platform::resolveUserDirectory("/home/u/Docs", "/home/u", "Documents"), "/home/u/Docs");
  EXPECT_EQ(platform::resolveUserDirectory("/home/u/", "/home/u", "Documents"),
            "/home/u/Documents");
  EXPECT_EQ(platform::resolveUserDirectory(nullptr, "/home/u", "Documents"), "/home/u/Documents");
  EXPECT_EQ(platform::resolveUserDirectory("", "/", "Documents"), "/Documents");
}

mode_t permissions(const std::filesystem::path& p) {
  struct stat st {};
  return ::stat(p.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// A lookup hands out a folder that exists: what is missing is created owner-only, what exists
// keeps its permissions, and what cannot be created is reported while the path still comes back.
TEST(Files, UserFoldersExistOnceLookedUp) {
  namespace fs = std::filesystem;
  using platform::UserFolder;
  const fs::path root = fs::path(test::outputDir()) / "user-folders";
  fs::remove_all(root);
  fs::create_directories(root);
  const mode_t mask = umask(022);
  umask(mask);
  const mode_t ownerOnly = 0700 & ~mask;

  std::string problem = "stale";
  platform::setUserFolderOverride(UserFolder::Documents, (root / "a" / "b" / "Docs").string());
  EXPECT_EQ(platform::userFolder(UserFolder::Documents, &problem), (root / "a/b/Docs").string());
  EXPECT_EQ(problem, "");
  for (const char* made : {"a", "a/b", "a/b/Docs"}) {
    EXPECT_TRUE(fs::is_directory(root / made)) << made;
    EXPECT_EQ(permissions(root / made), ownerOnly) << made;
  }
  EXPECT_EQ(platform::documentsDirectory(), (root / "a/b/Docs").string());  // a second lookup

  // Pictures has its own override; a folder that exists is used as it is.
  fs::create_directories(root / "Shared");
  fs::permissions(root / "Shared", fs::perms(0755));
  platform::setUserFolderOverride(UserFolder::Pictures, (root / "Shared").string() + "//");
  EXPECT_EQ(platform::picturesDirectory(), (root / "Shared").string() + "//");
  EXPECT_EQ(permissions(root / "Shared"), 0755u);
  EXPECT_EQ(platform::documentsDirectory(), (root / "a/b/Docs").string());

  // A file in the way: nothing is created, the reason is told, the path still comes back.
  std::ofstream(root / "file") << "x";
  platform::setUserFolderOverride(UserFolder::Documents, (root / "file" / "Docs").string());
  EXPECT_EQ(platform::userFolder(UserFolder::Documents, &problem), (root / "file/Docs").string());
  EXPECT_EQ(problem, std::strerror(ENOTDIR));
  EXPECT_TRUE(fs::is_regular_file(root / "file"));
  std::string reason;
  EXPECT_FALSE(platform::createDirectories((root / "file").string(), &reason));
  EXPECT_EQ(reason, std::strerror(EEXIST));
  EXPECT_FALSE(platform::createDirectories("", &reason));

  platform::setUserFolderOverride(UserFolder::Documents, "");
  platform::setUserFolderOverride(UserFolder::Pictures, "");
  fs::remove_all(root);
}

// A page nothing may read: what a decoder's wild read hits.
struct GuardPage {
  GuardPage() : page(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {}
  ~GuardPage() { munmap(page, 4096); }
  char read() const { return *static_cast<volatile const char*>(page); }
  void* page;
};

TEST(FaultFence, AFaultInsideEndsOnlyTheFencedCall) {
  const GuardPage guard;
  ASSERT_NE(guard.page, MAP_FAILED);
  const uint64_t before = platform::fencedFaultCount();
  bool after = false;
  EXPECT_FALSE(platform::runFenced([&] {
    guard.read();
    after = true;
  }));
  EXPECT_FALSE(after);
  EXPECT_EQ(platform::fencedFaultCount(), before + 1);

  // The fence stands again for the next call, and a finished call reports so.
  int ran = 0;
  EXPECT_TRUE(platform::runFenced([&] { ++ran; }));
  EXPECT_EQ(ran, 1);
  EXPECT_FALSE(platform::runFenced([&] { guard.read(); }));

  // A fault in an inner fence leaves the outer one standing.
  bool innerFinished = true, outerFinished = false;
  EXPECT_FALSE(platform::runFenced([&] {
    innerFinished = platform::runFenced([&] { guard.read(); });
    guard.read();
    outerFinished = true;
  }));
  EXPECT_FALSE(innerFinished);
  EXPECT_FALSE(outerFinished);

  // Threads fault at the same time, each back into its own fence.
  std::vector<std::thread> threads;
  std::vector<int> caught(4, 0);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) caught[t] += !platform::runFenced([&] { guard.read(); });
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(caught, std::vector<int>(4, 50));
  EXPECT_EQ(platform::fencedFaultCount(), before + 4 + 200);
}

TEST(FaultFenceDeathTest, FaultsOutsideAFenceStillEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        const GuardPage guard;
        platform::runFenced([] {});  // the fence's handler is installed
        guard.read();
      },
      "");
}

}  // namespace
}  // namespace kwq
