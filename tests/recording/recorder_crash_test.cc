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

// A helper process recording into <dir>/Documents until it is killed.
struct Child {
  pid_t pid = 0;  // 0 until started, and again once reaped
  fs::path documents;
  Progress progress{-1};
  int target = 0;  // appended frames after which the test kills it

  Child() = default;
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  // A test that stops early must not leave a recorder running.
  ~Child() {
    if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
    if (progress.fd >= 0) ::close(progress.fd);
  }

  // False when the helper could not be started.
  bool start(const fs::path& dir, int killAfter, const std::string& codec) {
    documents = dir / "Documents";
    target = killAfter;
    fs::create_directories(documents);
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::string helper = KWQ_RECORDER_CRASH_HELPER;
    std::string docs = documents.string(), pictures = (dir / "Pictures").string();
    std::string codecArg = codec;
    char* args[] = {helper.data(), docs.data(), pictures.data(), codecArg.data(), nullptr};
    if (posix_spawn(&pid, helper.c_str(), &actions, nullptr, args, environ) != 0) pid = 0;
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    progress.fd = out[0];
    return pid > 0;
  }
};

// Twenty recordings with `codec`, each killed at a random moment; every movie must decode (with
// GStreamer's decoders, as a player would) to within a second of the kill.
void killTwentyRecordings(const std::string& codec) {
  const test::TempDir dir("kwq-crash");
  ASSERT_FALSE(dir.path.empty());
  const fs::path& root = dir.path;
  std::mt19937 rng(std::random_device{}());
  // Kill after 15..60 appended frames (half a second to two seconds of a camera's stream):
  // past the first fragment, which needs the frames of a tenth of a second to reach qtmux
  // through the writer's queue of four and the one qtmux holds back; a kill before it leaves
  // a movie without frames.
  std::uniform_int_distribution<int> killAfter(15, 60);
  // Two recordings at a time: the helpers spend most of their time waiting for the next frame.
  for (int run = 0; run < 20; run += 2) {
    Child children[2];
    for (int k = 0; k < 2; ++k)
      ASSERT_TRUE(children[k].start(root / std::to_string(run + k), killAfter(rng), codec));
    for (Child& c : children) {
      while (c.progress.frames < c.target && c.progress.readSome()) {
      }
      ASSERT_EQ(::kill(c.pid, SIGKILL), 0);
      while (c.progress.readSome()) {  // frames appended before the signal landed
      }
      int status = 0;
      ASSERT_EQ(::waitpid(c.pid, &status, 0), c.pid);
      c.pid = 0;
      ASSERT_TRUE(WIFSIGNALED(status)) << "the helper ended by itself, status " << status
                                       << " after " << c.progress.frames << " frames";
      ASSERT_GE(c.progress.frames, c.target);

      const auto movie = test::readMovie(
          c.documents.string() + "//SavedCameraData/FrontCardData0.mov", {}, /*decode=*/true);
      EXPECT_TRUE(movie.opened) << c.documents << ": " << movie.error;
      EXPECT_GE(movie.endNs, c.progress.lastNs - 1000000000)
          << c.documents << ": " << movie.frames << " of " << c.progress.frames << " frames";
    }
  }
}

TEST(RecorderCrash, AKilledRecordingLeavesAMoviePlayableToWithinASecondOfTheKill) {
  killTwentyRecordings("raw");
}

TEST(RecorderCrash, AKilledLosslessH264RecordingAlsoPlaysToWithinASecondOfTheKill) {
  killTwentyRecordings("h264");
}

}  // namespace
}  // namespace kwq
