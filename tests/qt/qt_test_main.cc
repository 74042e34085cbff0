// Main of the Qt tests: a private X server (Xvfb) for the process and its children, then a
// QApplication on it, then the tests. No display is needed on the machine running them.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QApplication>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace {

pid_t xvfb = -1;

// Starts Xvfb on a free display number it reports through a pipe; sets DISPLAY. False when
// Xvfb cannot be started.
bool startXvfb() {
  int fds[2];
  if (::pipe(fds) != 0) return false;
  xvfb = ::fork();
  if (xvfb < 0) return false;
  if (xvfb == 0) {
    ::close(fds[0]);
    const int devnull = ::open("/dev/null", O_WRONLY);
    if (devnull >= 0) ::dup2(devnull, STDERR_FILENO);
    const std::string fd = std::to_string(fds[1]);
    ::execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1280x800x24", "-nolisten",
             "tcp", "-nolisten", "unix", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(fds[1]);
  std::string number;
  char c;
  while (::read(fds[0], &c, 1) == 1 && c != '\n') number += c;
  ::close(fds[0]);
  if (number.empty()) return false;
  ::setenv("DISPLAY", (":" + number).c_str(), 1);
  return true;
}

void stopXvfb() {
  if (xvfb <= 0) return;
  ::kill(xvfb, SIGTERM);
  ::waitpid(xvfb, nullptr, 0);
  xvfb = -1;
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Listing tests (test discovery at build time) needs no window system.
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  // "-nolisten unix" leaves only the abstract socket, which Xlib on Linux finds.
  if (!startXvfb()) {
    std::fprintf(stderr, "Xvfb could not be started (install the xvfb package)\n");
    return 1;
  }
  ::setenv("QT_QPA_PLATFORM", "xcb", 1);
  int result = 0;
  {
    QApplication app(argc, argv);
    result = RUN_ALL_TESTS();
  }
  stopXvfb();
  return result;
}
