// Preloaded into a recording child to stand in for a file system that refuses fsync (some
// network and FUSE file systems answer EINVAL; a failing disk answers EIO):
//
//   LD_PRELOAD=libkwq_fsync_refusing_shim.so KWQ_REFUSE_FSYNC_UNDER=/tmp/x KWQ_REFUSE_FSYNC_ERRNO=5
//
// fsync and fdatasync on a descriptor whose path starts with the prefix fail with the errno
// given (EINVAL when none); every refusal appends one line to KWQ_REFUSE_FSYNC_LOG when set,
// so the test knows the refusal was met.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int refusal(int fd) {
  const char* prefix = getenv("KWQ_REFUSE_FSYNC_UNDER");
  if (!prefix || !*prefix) return 0;
  char link[64], path[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t n = readlink(link, path, sizeof path - 1);
  if (n < 0) return 0;
  path[n] = '\0';
  if (strncmp(path, prefix, strlen(prefix)) != 0) return 0;
  const char* log = getenv("KWQ_REFUSE_FSYNC_LOG");
  if (log && *log) {
    const int out = open(log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (out >= 0) {
      char line[4200];
      const int len = snprintf(line, sizeof line, "%s\n", path);
      if (len > 0 && write(out, line, (size_t)len) < 0) {
        // nothing to do: the refusal stands either way
      }
      close(out);
    }
  }
  const char* code = getenv("KWQ_REFUSE_FSYNC_ERRNO");
  return code && atoi(code) > 0 ? atoi(code) : EINVAL;
}

int fsync(int fd) {
  const int err = refusal(fd);
  if (err) {
    errno = err;
    return -1;
  }
  int (*real)(int) = (int (*)(int))dlsym(RTLD_NEXT, "fsync");
  return real ? real(fd) : 0;
}

int fdatasync(int fd) {
  const int err = refusal(fd);
  if (err) {
    errno = err;
    return -1;
  }
  int (*real)(int) = (int (*)(int))dlsym(RTLD_NEXT, "fdatasync");
  return real ? real(fd) : 0;
}
