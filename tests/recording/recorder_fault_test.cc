// The recorder under faults, each in a child process (recorder_fault_helper) so that the
// documents and pictures folders can sit where the fault is: a full file system, one that
// refuses fsync, a folder made read-only mid-run, a kill while the photo library saves. Every
// case ends with the movies read back by GStreamer, and prints one row of the fault table:
// frames recorded, movies left, how many play, log lines.
//
// Cases that mount a file system need root (CI runs as root); elsewhere they are skipped with
// a message saying so.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "recording/recording_support.h"

extern char** environ;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace kwq {
namespace {

struct Child {
  int status = -1;                          // exit code, or -signal
  std::map<std::string, std::string> rows;  // "appended" -> "200", ...
  std::string out;
  int value(const std::string& key) const {
    auto it = rows.find(key);
    return it == rows.end() ? -1 : std::atoi(it->second.c_str());
  }
};

// Runs the helper with `extraEnv` added; with `killAfter`, sends SIGKILL that long after the
// child printed "stopped".
Child runHelper(const fs::path& documents, const fs::path& pictures, int frames, int freezeAfter,
                const std::vector<std::string>& extraEnv = {},
                std::optional<std::chrono::microseconds> killAfter = std::nullopt) {
  // This process's environment with `extraEnv` set over it.
  std::vector<std::string> env = extraEnv;
  for (char** e = environ; *e; ++e) {
    const std::string var = *e;
    const std::string name = var.substr(0, var.find('=') + 1);
    const auto over = std::find_if(env.begin(), env.end(),
                                   [&](const std::string& v) { return v.starts_with(name); });
    if (over == env.end())
      env.push_back(var);
    else if (name == "ASAN_OPTIONS=")  // the sanitizer build's own options stay
      *over = var + ":" + over->substr(name.size());
  }
  std::vector<char*> envp;
  for (auto& v : env) envp.push_back(v.data());
  envp.push_back(nullptr);
  std::vector<std::string> args = {KWQ_FAULT_HELPER, documents.string(), pictures.string(),
                                   std::to_string(frames)};
  if (freezeAfter >= 0) args.push_back(std::to_string(freezeAfter));
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  int pipeFds[2];
  Child child;
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) return child;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  if (spawned != 0) {
    ::close(pipeFds[0]);
    return child;
  }
  char buffer[4096];
  bool killed = false;
  for (ssize_t n; (n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0;) {
    child.out.append(buffer, static_cast<size_t>(n));
    if (killAfter && !killed && child.out.find("stopped\n") != std::string::npos) {
      std::this_thread::sleep_for(*killAfter);
      ::kill(pid, SIGKILL);
      killed = true;
    }
  }
  ::close(pipeFds[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  child.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  size_t at = 0;
  while (at < child.out.size()) {
    const size_t end = child.out.find('\n', at);
    const std::string line = child.out.substr(at, end - at);
    const size_t space = line.find(' ');
    if (space != std::string::npos && !line.starts_with("log "))
      child.rows[line.substr(0, space)] = line.substr(space + 1);
    at = end == std::string::npos ? child.out.size() : end + 1;
  }
  return child;
}

struct Movies {
  int count = 0, playable = 0;
  size_t frames = 0;  // frames of the longest
};

// The movies in `folder` (and its recorder folder), each read back to its end.
Movies moviesIn(const fs::path& folder) {
  Movies m;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->path().extension() != ".mov") continue;
    ++m.count;
    const auto movie = test::readMovie(it->path().string());
    if (movie.opened && movie.frames > 0) ++m.playable;
    m.frames = std::max(m.frames, movie.frames);
  }
  return m;
}

void tableRow(const std::string& fault, const Child& child, const Movies& library,
              const Movies& documents) {
  std::printf(
      "| %s | %d | %d in the library, %d left in Documents | %d, %zu frames | %d (%d distinct) |\n",
      fault.c_str(), child.value("appended"), library.count, documents.count,
      library.playable + documents.playable, std::max(library.frames, documents.frames),
      child.value("lines"), child.value("distinct"));
  std::fflush(stdout);
}

// A tmpfs of `size` mounted on `at` for the test's life; skipped without the privilege.
struct SmallFileSystem {
  fs::path at;
  bool mounted = false;
  int error = 0;
  SmallFileSystem(fs::path where, const char* size) : at(std::move(where)) {
    fs::create_directories(at);
    const std::string options = std::string("size=") + size + ",mode=0755";
    mounted = ::mount("tmpfs", at.c_str(), "tmpfs", 0, options.c_str()) == 0;
    error = mounted ? 0 : errno;
  }
  ~SmallFileSystem() {
    if (mounted) ::umount2(at.c_str(), MNT_DETACH);
  }
};

#define SKIP_UNLESS_MOUNTED(fs_)                                                  \
  if (!(fs_).mounted)                                                             \
  GTEST_SKIP() << "needs root to mount a tmpfs (CI runs as root); mount failed: " \
               << std::strerror((fs_).error)

class RecorderFault : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path.empty());
    fs::create_directories(documents());
    fs::create_directories(pictures());
  }
  fs::path root() const { return dir_.path; }
  virtual fs::path documents() const { return root() / "Documents"; }
  virtual fs::path pictures() const { return root() / "Pictures"; }
  fs::path recorderFolder() const { return documents() / "SavedCameraData"; }

  test::TempDir dir_{"kwq-fault"};
};

TEST_F(RecorderFault, AFullDiskKeepsTheMovieUpToWhereTheDiskFilled) {
  SmallFileSystem small(root() / "small", "8m");
  SKIP_UNLESS_MOUNTED(small);
  const fs::path docs = small.at / "Documents", pics = small.at / "Pictures";
  fs::create_directories(docs);
  // 150 KB a frame: the 8 MB fill after about 50 of the 200 frames.
  const Child child = runHelper(docs, pics, 200, -1);
  ASSERT_EQ(child.status, 0) << child.out;
  const int appended = child.value("appended");
  EXPECT_GT(appended, 20);
  EXPECT_LT(appended, 200);
  EXPECT_EQ(child.rows.at("saved"), "true");
  const Movies library = moviesIn(pics), left = moviesIn(docs);
  tableRow("full disk (8 MB tmpfs, 200 frames of 320x240)", child, library, left);
  EXPECT_EQ(library.count, 1);
  EXPECT_EQ(library.playable, 1);
  // What reached the disk before it filled: all but the fragment being gathered and the
  // frames queued behind it.
  EXPECT_GE(library.frames + 12, static_cast<size_t>(appended));
  EXPECT_EQ(left.count, 0);
}

// Same file system (the save moves the movie) and, as root, pictures on their own file system
// (the save copies and syncs the copy).
struct FsyncCase {
  const char* name;
  int error;
  bool picturesElsewhere;
  bool savedToLibrary;
};

class FsyncRefused : public RecorderFault, public ::testing::WithParamInterface<FsyncCase> {};

TEST_P(FsyncRefused, TheMovieIsSavedOrKeptWhole) {
  const FsyncCase c = GetParam();
  std::optional<SmallFileSystem> other;
  fs::path pics = pictures();
  if (c.picturesElsewhere) {
    other.emplace(root() / "other", "64m");
    SKIP_UNLESS_MOUNTED(*other);
    pics = other->at / "Pictures";
  }
  const fs::path refusals = root() / "refusals.txt";
  const Child child =
      runHelper(documents(), pics, 30, -1,
                {"LD_PRELOAD=" KWQ_FSYNC_SHIM, "ASAN_OPTIONS=verify_asan_link_order=0",
                 "KWQ_REFUSE_FSYNC_UNDER=" + root().string(),
                 "KWQ_REFUSE_FSYNC_ERRNO=" + std::to_string(c.error),
                 "KWQ_REFUSE_FSYNC_LOG=" + refusals.string()});
  ASSERT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.value("appended"), 30);
  EXPECT_TRUE(fs::exists(refusals)) << "nothing asked for fsync under " << root();
  const Movies library = moviesIn(pics), left = moviesIn(documents());
  tableRow(c.name, child, library, left);
  // Whichever way it went, the movie is somewhere, whole.
  EXPECT_EQ(library.count + left.count, 1);
  EXPECT_EQ(library.playable + left.playable, 1);
  EXPECT_EQ(std::max(library.frames, left.frames), 30u);
  EXPECT_EQ(library.count, c.savedToLibrary ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FsyncRefused,
    ::testing::Values(FsyncCase{"fsync refused (EINVAL), one file system", EINVAL, false, true},
                      FsyncCase{"fsync failing (EIO), one file system", EIO, false, true},
                      FsyncCase{"fsync refused (EINVAL), pictures elsewhere", EINVAL, true, true},
                      FsyncCase{"fsync failing (EIO), pictures elsewhere", EIO, true, false}),
    [](const auto& info) {
      return std::string(info.param.error == EIO ? "EIO" : "EINVAL") +
             (info.param.picturesElsewhere ? "PicturesElsewhere" : "OneFileSystem");
    });

TEST_F(RecorderFault, AFolderMadeReadOnlyMidRunKeepsTheMovieAndRefusesTheNext) {
  struct Unmount {
    fs::path folder;
    ~Unmount() {
      if (::geteuid() == 0) ::umount2(folder.c_str(), MNT_DETACH);
      std::error_code ec;
      fs::permissions(folder, fs::perms::owner_all, ec);
    }
  } unmount{recorderFolder()};
  const Child child = runHelper(documents(), pictures(), 60, 30);
  ASSERT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.value("appended"), 60);  // the open movie keeps being written
  EXPECT_EQ(child.value("again"), 0);      // no new movie in a read-only folder
  EXPECT_EQ(child.rows.at("saved"), "true");
  const Movies library = moviesIn(pictures());
  tableRow("recorder folder made read-only after 30 of 60 frames", child, library, Movies{});
  EXPECT_EQ(library.count, 1);
  EXPECT_EQ(library.playable, 1);
  EXPECT_EQ(library.frames, 60u);
}

// Kills at several moments of the photo library's save: the movie is always somewhere whole,
// the library never shows a part of one, and one left behind is saved by the next start.
class KilledDuringSave : public RecorderFault, public ::testing::WithParamInterface<bool> {};

TEST_P(KilledDuringSave, LeavesTheMovieWholeInOnePlace) {
  std::optional<SmallFileSystem> other;
  fs::path pics = pictures();
  if (GetParam()) {
    other.emplace(root() / "other", "256m");
    SKIP_UNLESS_MOUNTED(*other);
    pics = other->at / "Pictures";
  }
  int inLibrary = 0, inDocuments = 0, recoveredAtNextStart = 0;
  for (int delayUs : {0, 1000, 5000, 30000}) {
    fs::remove_all(pics);
    fs::remove_all(documents());
    fs::create_directories(documents());
    const Child child =
        runHelper(documents(), pics, 60, -1, {}, std::chrono::microseconds(delayUs));
    ASSERT_EQ(child.value("appended"), 60) << child.out;
    const Movies library = moviesIn(pics), left = moviesIn(documents());
    EXPECT_EQ(library.count + left.count, 1) << delayUs << " us";
    EXPECT_EQ(library.playable + left.playable, 1) << delayUs << " us";
    EXPECT_EQ(std::max(library.frames, left.frames), 60u) << delayUs << " us";
    inLibrary += library.count;
    inDocuments += left.count;
    if (left.count == 0) continue;
    // A movie the kill left behind goes to the photo library with the next start.
    const Child next = runHelper(documents(), pics, 10, -1);
    ASSERT_EQ(next.value("appended"), 10) << next.out;
    const auto recovered = test::readMovie((pics / "Recovered-FrontCardData0.mov").string());
    EXPECT_EQ(recovered.frames, 60u) << delayUs << " us";
    EXPECT_EQ(moviesIn(pics).count, library.count + 2) << delayUs << " us";
    ++recoveredAtNextStart;
  }
  std::printf(
      "| SIGKILL during the save (%s), 4 kills | 60 each | %d in the library, %d left in "
      "Documents (%d saved by the next start) | %d, 60 frames each | - |\n",
      GetParam() ? "pictures elsewhere" : "one file system", inLibrary, inDocuments,
      recoveredAtNextStart, inLibrary + inDocuments);
}

INSTANTIATE_TEST_SUITE_P(Places, KilledDuringSave, ::testing::Bool(), [](const auto& info) {
  return info.param ? std::string("PicturesElsewhere") : std::string("OneFileSystem");
});

}  // namespace
}  // namespace kwq
