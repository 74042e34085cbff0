// Recording on an account that has never had a documents or pictures folder (a new user, a
// container, a kiosk): `kwq capture --record` runs in a child with a brand-new home and no
// display, and the movie it names is read back with GStreamer.

#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "recording/recording_support.h"

extern char** environ;
namespace fs = std::filesystem;

namespace kwq {
namespace {

struct ToolRun {
  int code = -1;
  std::string out, err;
  std::string row(const std::string& label) const {  // a value of the summary table
    size_t at = out.find("\n" + label + "  ");
    if (at == std::string::npos) return {};
    at = out.find_first_not_of(' ', at + 1 + label.size());
    return out.substr(at, out.find('\n', at) - at);
  }
};

std::string slurp(const fs::path& p) {
  std::ifstream in(p);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Runs the tool with this process's environment less everything that names a user folder or a
// display, and with `home` as HOME and <home>/.config as XDG_CONFIG_HOME.
ToolRun kwqIn(const fs::path& home, const std::string& args) {
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) {
    const std::string var = *e;
    if (!var.starts_with("HOME=") && !var.starts_with("XDG_") && !var.starts_with("DISPLAY=") &&
        !var.starts_with("WAYLAND_DISPLAY="))
      env.push_back(var);
  }
  env.push_back("HOME=" + home.string());
  env.push_back("XDG_CONFIG_HOME=" + (home / ".config").string());
  std::vector<char*> envp;
  for (std::string& v : env) envp.push_back(v.data());
  envp.push_back(nullptr);

  std::vector<std::string> argv = {KWQ_TOOL_PATH};
  for (size_t at = 0; at < args.size();) {
    const size_t space = args.find(' ', at);
    argv.push_back(args.substr(at, space - at));
    at = space == std::string::npos ? args.size() : space + 1;
  }
  std::vector<char*> argp;
  for (std::string& a : argv) argp.push_back(a.data());
  argp.push_back(nullptr);

  const fs::path out = home.parent_path() / "stdout.txt", err = home.parent_path() / "stderr.txt";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ToolRun run;
  pid_t pid = 0;
  if (posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data()) == 0) {
    int status = 0;
    if (::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) run.code = WEXITSTATUS(status);
  }
  posix_spawn_file_actions_destroy(&actions);
  run.out = slurp(out);
  run.err = slurp(err);
  return run;
}

class FreshAccount : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(root_.empty());
    home_ = root_ / "home";
    fs::create_directory(home_);
  }

  // Records 30 synthetic frames; checks the run, the log and the movie; returns the movie.
  fs::path recordAndReadBack(const fs::path& pictures, const std::string& codec = "raw") {
    const ToolRun run = kwqIn(home_, "capture --frames 30 --record --codec " + codec);
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.err.find("Error creating folder"), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("An error has occured"), std::string::npos) << run.err;
    const fs::path movie = run.row("movie");
    EXPECT_EQ(movie, pictures / "FrontCardData0.mov") << run.out << run.err;
    const auto read = test::readMovie(movie.string(), {}, /*decode=*/codec != "raw");
    EXPECT_TRUE(read.opened) << read.error;
    EXPECT_GE(read.frames, 20u);  // the frame being delivered at the stop may miss the movie
    EXPECT_LE(read.frames, 30u);
    return movie;
  }

  const test::TempDir dir_{"kwq-fresh"};
  const fs::path root_ = dir_.path;
  fs::path home_;
};

TEST_F(FreshAccount, RecordingCreatesMissingXdgFoldersWithTheirParents) {
  fs::create_directory(home_ / ".config");
  std::ofstream(home_ / ".config" / "user-dirs.dirs")
      << "XDG_DOCUMENTS_DIR=\"$HOME/Work/Papers\"\nXDG_PICTURES_DIR=\"$HOME/Media/Photos\"\n";
  recordAndReadBack(home_ / "Media" / "Photos");
  EXPECT_TRUE(fs::is_directory(home_ / "Work" / "Papers" / "SavedCameraData"));
  EXPECT_FALSE(fs::exists(home_ / "Documents"));
  EXPECT_FALSE(fs::exists(home_ / "Pictures"));
}

// Both codecs from a home without Documents or Pictures (how the folders are made, owner-only
// with their parents: the user-folder tests).
TEST_F(FreshAccount, RecordingMakesTheFoldersLosslessH264IsSmallerOtherCodecsAreUsageErrors) {
  const fs::path rawMovie = recordAndReadBack(home_ / "Pictures");
  // The recorder's own folder, emptied again once the movie was saved.
  EXPECT_TRUE(fs::is_directory(home_ / "Documents" / "SavedCameraData"));
  EXPECT_TRUE(fs::is_empty(home_ / "Documents" / "SavedCameraData"));
  const uintmax_t raw = fs::file_size(rawMovie);
  fs::remove(rawMovie);  // the next movie takes the same name
  const uintmax_t h264 = fs::file_size(recordAndReadBack(home_ / "Pictures", "h264"));
  EXPECT_LT(h264 * 4, raw);
  for (const char* codec : {"ffv1", "prores", "h264-lossy", ""}) {
    const ToolRun run = kwqIn(home_, std::string("capture --frames 1 --record --codec ") + codec);
    EXPECT_EQ(run.code, 2) << codec << ": " << run.err;
  }
}

// A home on a full file system (8 MB, as a kiosk's small data partition might be): the movie up
// to where the disk filled is kept, the failure that repeats for every later frame is printed
// once with its count, and the tool says where the movie is.
TEST_F(FreshAccount, AFullHomeKeepsTheMovieAndPrintsTheRepeatedErrorOnce) {
  if (::mount("tmpfs", home_.c_str(), "tmpfs", 0, "size=8m,mode=0755") != 0)
    GTEST_SKIP() << "needs root to mount a tmpfs (CI runs as root): " << std::strerror(errno);
  struct Unmount {
    fs::path at;
    ~Unmount() { ::umount2(at.c_str(), MNT_DETACH); }
  } unmount{home_};
  const ToolRun run = kwqIn(home_, "capture --seconds 4 --record");
  const auto count = [&](const std::string& text) {  // lines that begin with `text`
    size_t n = run.err.starts_with(text);
    for (size_t at = run.err.find("\n" + text); at != std::string::npos;
         at = run.err.find("\n" + text, at + 1))
      ++n;
    return n;
  };
  std::printf("| kwq capture --record --seconds 4, HOME on an 8 MB tmpfs | %s |\n%s",
              run.row("movie").c_str(), run.err.c_str());
  EXPECT_EQ(count("Record Camera Data: An error has occured recording the camera."), 1u) << run.err;
  EXPECT_EQ(count("kwq: "), 1u) << run.err;  // "kwq: <n> times in all: <that line>"
  EXPECT_NE(run.err.find(" times in all: Record Camera Data: An error has occured"),
            std::string::npos)
      << run.err;
  const fs::path movie = run.row("movie");
  ASSERT_FALSE(movie.empty()) << run.out << run.err;
  EXPECT_EQ(movie.parent_path(), home_ / "Pictures");
  const auto read = test::readMovie(movie.string());
  EXPECT_TRUE(read.opened) << read.error;
  // 1280x720 frames, 1.8 MB each as stored: the few that fit before the disk filled.
  EXPECT_GE(read.frames, 1u);
}

}  // namespace
}  // namespace kwq
