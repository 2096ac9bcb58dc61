// Preloaded into the tool by transaction_bench: records the time of every
// rename(2) the tool makes, so the bench can tell how long each profile was
// without its add-in (between its two renames).
#include <dlfcn.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" int rename(const char* from, const char* to) {
  using RenameFn = int (*)(const char*, const char*);
  static RenameFn real = reinterpret_cast<RenameFn>(dlsym(RTLD_NEXT, "rename"));
  int result = real(from, to);
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  if (const char* log = std::getenv("QUORVANE_RENAME_LOG")) {
    char line[8192];
    int n = std::snprintf(line, sizeof line, "%lld.%09ld %d %s -> %s\n", static_cast<long long>(now.tv_sec),
                          now.tv_nsec, result, from, to);
    int fd = open(log, O_WRONLY | O_APPEND | O_CREAT, 0644);
    if (fd >= 0) {
      if (write(fd, line, static_cast<size_t>(n)) < 0) {
      }
      close(fd);
    }
  }
  return result;
}
