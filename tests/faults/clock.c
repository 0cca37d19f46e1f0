// Loaded into the daemon by LD_PRELOAD: its real-time clock is that of the system plus so many seconds
// as a file says, which the test has mapped as well and changes at will. As when an operator sets
// the clock, the monotonic clock goes on.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static int64_t const * shift;

__attribute__((constructor)) static void begin(void) {
  char const * const path = getenv("CLOCK_SHIFT");
  int const file = path != NULL ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (file < 0)
    return;
  void * const mapped = mmap(NULL, sizeof *shift, PROT_READ, MAP_SHARED, file, 0);
  close(file);
  if (mapped != MAP_FAILED)
    shift = mapped;
}

int clock_gettime(clockid_t clock, struct timespec * now) {
  static int (*next)(clockid_t, struct timespec *);
  if (next == NULL)
    *(void **)&next = dlsym(RTLD_NEXT, "clock_gettime");
  int const result = next(clock, now);
  if (result == 0 && shift != NULL && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
    now->tv_sec += *(int64_t const volatile *)shift;
  return result;
}

int gettimeofday(struct timeval * restrict now, void * restrict zone) {
  (void)zone;
  struct timespec exact;
  if (clock_gettime(CLOCK_REALTIME, &exact) != 0)
    return -1;
  now->tv_sec = exact.tv_sec;
  now->tv_usec = exact.tv_nsec / 1000;
  return 0;
}

time_t time(time_t * into) {
  struct timespec exact;
  clock_gettime(CLOCK_REALTIME, &exact);
  if (into != NULL)
    *into = exact.tv_sec;
  return exact.tv_sec;
}
