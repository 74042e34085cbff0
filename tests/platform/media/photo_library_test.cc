// The photo library: copies into the pictures folder under free names only, and the errors it
// reports through its completion. (PNG images: the recorder's tests.)

#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "platform/foundation/user_dirs.h"
#include "platform/media/photo_library.h"
#include "recording/recording_support.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace kwq::platform {
namespace {

struct Saved {
  std::optional<std::string> error;
  std::string path;
  std::thread::id thread;
};

class PhotoLibrary : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(root_.empty());
    setUserFolderOverride(UserFolder::Pictures, (root_ / "Pictures" / "Library").string());
  }
  void TearDown() override { setUserFolderOverride(UserFolder::Pictures, ""); }

  // Saves a movie and waits for the completion.
  static Saved saveVideo(const fs::path& p) {
    std::promise<Saved> done;
    auto result = done.get_future();
    saveVideoToPhotoLibrary(p.string(), [&](const auto& error, const std::string& path) {
      done.set_value({error, path, std::this_thread::get_id()});
    });
    EXPECT_EQ(result.wait_for(30s), std::future_status::ready);
    return result.get();
  }
  static std::string content(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  fs::path library() const { return root_ / "Pictures" / "Library"; }

  const test::TempDir dir_{"kwq-photos"};
  const fs::path root_ = dir_.path;
};

TEST_F(PhotoLibrary, CopiesMoviesUnderFreeNamesOnly) {
  std::mt19937 rng(3);
  std::string bytes(300000, '\0');
  for (auto& b : bytes) b = static_cast<char>(rng());
  std::ofstream(root_ / "clip.mov", std::ios::binary) << bytes;

  const Saved first = saveVideo(root_ / "clip.mov");  // also creates the missing folders
  ASSERT_FALSE(first.error) << *first.error;
  EXPECT_EQ(first.path, (library() / "clip.mov").string());
  EXPECT_NE(first.thread, std::this_thread::get_id());
  std::ofstream(library() / "clip (1).mov") << "mine";
  EXPECT_EQ(saveVideo(root_ / "clip.mov").path, (library() / "clip (2).mov").string());
  EXPECT_EQ(saveVideo(root_ / "clip.mov").path, (library() / "clip (3).mov").string());

  size_t files = 0;
  for (const auto& entry : fs::directory_iterator(library())) {
    ++files;
    const std::string name = entry.path().filename();
    EXPECT_EQ(content(entry.path()), name == "clip (1).mov" ? "mine" : bytes) << name;
  }
  EXPECT_EQ(files, 4u);  // no temporary file is left behind
}

TEST_F(PhotoLibrary, ReportsWhatCouldNotBeSaved) {
  const Saved missing = saveVideo(root_ / "missing.mov");
  ASSERT_TRUE(missing.error.has_value());
  EXPECT_NE(missing.error->find("missing.mov"), std::string::npos) << *missing.error;
  EXPECT_TRUE(missing.path.empty());
  EXPECT_FALSE(fs::exists(library()) && !fs::is_empty(library()));

  std::ofstream(root_ / "plain-file") << "x";
  setUserFolderOverride(UserFolder::Pictures, (root_ / "plain-file" / "Pictures").string());
  std::ofstream(root_ / "clip.mov") << "movie";
  const Saved s = saveVideo(root_ / "clip.mov");
  ASSERT_TRUE(s.error.has_value());
  EXPECT_NE(s.error->find("could not be created"), std::string::npos) << *s.error;
}

}  // namespace
}  // namespace kwq::platform
