// Crash safety: a recording process killed with SIGKILL at a random moment leaves a movie that
// opens and plays up to within a second of the kill. The recorder runs in a freshly executed
// helper program (forking a process that has GStreamer threads is unsafe).

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "recording/recording_support.h"

extern char** environ;
namespace fs = std::filesystem;

namespace kwq {
namespace {

// Reads the helper's lines (frame times in nanoseconds); counts them and keeps the last.
struct Progress {
  int fd;
  std::string pending;
  int frames = 0;
  int64_t lastNs = -1;

  // Reads once; false at the end of the stream.
  bool readSome() {
    char chunk[4096];
    ssize_t n;
    do n = ::read(fd, chunk, sizeof chunk);
    while (n < 0 && errno == EINTR);
    if (n <= 0) return false;
    pending.append(chunk, static_cast<size_t>(n));
    size_t eol;
    while ((eol = pending.find('\n')) != std::string::npos) {
      lastNs = std::stoll(pending.substr(0, eol));
      ++frames;
      pending.erase(0, eol + 1);
    }
    return true;
  }
};

TEST(RecorderCrash, AKilledRecordingLeavesAMoviePlayableToWithinASecondOfTheKill) {
  char name[] = "/tmp/kwq-crash-XXXXXX";
  ASSERT_NE(::mkdtemp(name), nullptr);
  const fs::path root = name;
  std::mt19937 rng(std::random_device{}());
  // Kill after 10..60 appended frames (a third of a second to two seconds of movie): late
  // enough that qtmux has written its first index, which it does at the first frame it stores.
  std::uniform_int_distribution<int> killAfter(10, 60);
  for (int run = 0; run < 20; ++run) {
    const fs::path documents = root / std::to_string(run) / "Documents";
    const fs::path pictures = root / std::to_string(run) / "Pictures";
    fs::create_directories(documents);
    int out[2];
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::string helper = KWQ_RECORDER_CRASH_HELPER;
    std::string docArg = documents.string(), picArg = pictures.string();
    char* args[] = {helper.data(), docArg.data(), picArg.data(), nullptr};
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, helper.c_str(), &actions, nullptr, args, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);

    Progress progress{out[0]};
    const int target = killAfter(rng);
    while (progress.frames < target && progress.readSome()) {
    }
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    while (progress.readSome()) {  // frames appended before the signal landed
    }
    ::close(out[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status)) << "run " << run << ": the helper ended by itself, status "
                                     << status << " after " << progress.frames << " frames";
    ASSERT_GE(progress.frames, target);

    const auto movie = test::readMovie(documents.string() + "//SavedCameraData/FrontCardData0.mov");
    EXPECT_TRUE(movie.opened) << "run " << run << ": " << movie.error;
    EXPECT_GE(movie.endNs, progress.lastNs - 1000000000)
        << "run " << run << ": " << movie.frames << " of " << progress.frames << " frames";
    fs::remove_all(root / std::to_string(run));
  }
  fs::remove_all(root);
}

}  // namespace
}  // namespace kwq
