// Loaded into the daemon by LD_PRELOAD: counts its allocations and system calls by kind, and lets
// one of them fail, which the driver (tests/inject) chooses. Both share a board, a file mapped into
// memory, so that a call can be chosen before the start or while the daemon runs.
//
// An allocation is counted where malloc and its like are called by name, which is in front of
// mimalloc; by whom tells its kind. A system call is counted where its function of the C library is
// called by name; what the C library does inside its own functions is not. Calls that cannot fail
// for want of anything (sigaction, umask, getpid, clock_gettime) are left alone.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

// The first two are allocations: by our code, which makes those of libevent as well, and by all
// others.
#define KINDS(kind)                                                                                \
  kind(memory) kind(memory_of_libraries) kind(mmap) kind(pthread_create) kind(socket) kind(bind)   \
      kind(listen) kind(connect) kind(accept) kind(open) kind(fopen) kind(read) kind(recv)         \
          kind(send) kind(write) kind(close) kind(poll) kind(epoll_create) kind(epoll_ctl)         \
              kind(epoll_wait) kind(eventfd) kind(timer_create) kind(socketpair) kind(pipe)        \
                  kind(fcntl) kind(setsockopt) kind(getsockopt) kind(getsockname) kind(stat)       \
                      kind(access) kind(readlink) kind(flock) kind(inotify_init)                   \
                          kind(inotify_add_watch) kind(unlink) kind(chmod) kind(mkdir)             \
                              kind(gethostname)

enum Kind {
#define MEMBER(name) KIND_##name,
  KINDS(MEMBER) KIND_COUNT
};

struct Board {
  uint64_t kind; // which call fails: that of this kind and number, counted from 1
  uint64_t number;
  uint64_t error;   // with this errno
  uint64_t failed;  // 1 when it has
  char caller[128]; // who called it then: a file and an offset in it
  struct {
    char name[24];
    uint64_t count;
  } kinds[KIND_COUNT];
};

static struct Board * board;

static void noteCaller(void * caller) {
  struct dl_find_object found;
  if (_dl_find_object(caller, &found) != 0)
    return;
  char const * const path = found.dlfo_link_map->l_name;
  char const * const slash = strrchr(path, '/');
  unsigned long const offset = (unsigned long)caller - found.dlfo_link_map->l_addr;
  snprintf(board->caller, sizeof board->caller, "%s+0x%lx",
           *path == '\0'   ? "program"
           : slash != NULL ? slash + 1
                           : path,
           offset);
}

static int fails(enum Kind kind, void * caller) {
  if (board == NULL)
    return 0;
  uint64_t const number = __atomic_add_fetch(&board->kinds[kind].count, 1, __ATOMIC_SEQ_CST);
  if (number != board->number || board->kind != (uint64_t)kind)
    return 0;
  noteCaller(caller);
  errno = (int)board->error;
  __atomic_store_n(&board->failed, 1, __ATOMIC_SEQ_CST);
  return 1;
}

static char const * valueOf(char const * name, char ** environment) {
  size_t const length = strlen(name);
  for (; *environment != NULL; ++environment)
    if (strncmp(*environment, name, length) == 0 && (*environment)[length] == '=')
      return *environment + length + 1;
  return NULL;
}

// Linked to be initialised first of all, since static objects of the libraries allocate: even
// before the C library, which has no environment yet.
__attribute__((constructor)) static void begin(int argc, char ** argv, char ** environment) {
  static char const * const names[] = {
#define NAME(name) #name,
      KINDS(NAME)};
  (void)argc, (void)argv;
  char const * const path = valueOf("FAULTS_BOARD", environment);
  if (path == NULL)
    return;
  int const file = (int)syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC, 0);
  if (file < 0)
    return;
  struct Board * const mapped = (struct Board *)syscall(
      SYS_mmap, NULL, sizeof *mapped, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  syscall(SYS_close, file);
  if (mapped == MAP_FAILED)
    return;
  for (int kind = 0; kind != KIND_COUNT; ++kind)
    strncpy(mapped->kinds[kind].name, names[kind], sizeof mapped->kinds[kind].name - 1);
  board = mapped;
}

// Allocations

static enum Kind kindOfMemory(void * caller) {
  struct dl_find_object found;
  if (_dl_find_object(caller, &found) != 0)
    return KIND_memory_of_libraries;
  char const * const path = found.dlfo_link_map->l_name;
  if (*path == '\0' || strstr(path, "libTunnelIntfSnmp") != NULL ||
      strstr(path, "libstdc++") != NULL)
    return KIND_memory;
  return KIND_memory_of_libraries;
}

static int memoryFails(void * caller) {
  return board != NULL && fails(kindOfMemory(caller), caller);
}

#define NEXT(name) ((__typeof__(&name))next(#name, &next_##name))
static void * next(char const * name, void ** known) {
  if (*known == NULL)
    *known = dlsym(RTLD_NEXT, name);
  return *known;
}

#define CALLER __builtin_return_address(0)

static void * next_malloc;
void * malloc(size_t size) {
  return memoryFails(CALLER) ? NULL : NEXT(malloc)(size);
}
static void * next_calloc;
void * calloc(size_t count, size_t size) {
  return memoryFails(CALLER) ? NULL : NEXT(calloc)(count, size);
}
static void * next_realloc;
void * realloc(void * memory, size_t size) {
  return memoryFails(CALLER) ? NULL : NEXT(realloc)(memory, size);
}
static void * next_aligned_alloc;
void * aligned_alloc(size_t alignment, size_t size) {
  return memoryFails(CALLER) ? NULL : NEXT(aligned_alloc)(alignment, size);
}
static void * next_posix_memalign;
int posix_memalign(void ** memory, size_t alignment, size_t size) {
  return memoryFails(CALLER) ? ENOMEM : NEXT(posix_memalign)(memory, alignment, size);
}
static void * next_strdup;
char * strdup(char const * text) {
  return memoryFails(CALLER) ? NULL : NEXT(strdup)(text);
}

// System calls

#define CALL(result, failure, kind, name, parameters, ...)                                         \
  static void * next_##name;                                                                       \
  result name parameters {                                                                         \
    return fails(KIND_##kind, CALLER) ? (result)failure : NEXT(name)(__VA_ARGS__);                 \
  }

CALL(void *, -1, mmap, mmap,
     (void * at, size_t size, int protection, int flags, int file, off_t from), at, size,
     protection, flags, file, from)
CALL(int, -1, socket, socket, (int domain, int type, int protocol), domain, type, protocol)
CALL(int, -1, bind, bind, (int fd, struct sockaddr const * to, socklen_t size), fd, to, size)
CALL(int, -1, listen, listen, (int fd, int backlog), fd, backlog)
CALL(int, -1, connect, connect, (int fd, struct sockaddr const * to, socklen_t size), fd, to, size)
CALL(int, -1, accept, accept, (int fd, struct sockaddr * from, socklen_t * size), fd, from, size)
CALL(int, -1, accept, accept4, (int fd, struct sockaddr * from, socklen_t * size, int flags), fd,
     from, size, flags)
CALL(FILE *, 0, fopen, fopen, (char const * path, char const * mode), path, mode)
CALL(FILE *, 0, fopen, fopen64, (char const * path, char const * mode), path, mode)
CALL(ssize_t, -1, read, read, (int fd, void * into, size_t size), fd, into, size)
CALL(ssize_t, -1, read, readv, (int fd, struct iovec const * into, int count), fd, into, count)
CALL(ssize_t, -1, recv, recv, (int fd, void * into, size_t size, int flags), fd, into, size, flags)
CALL(ssize_t, -1, recv, recvfrom,
     (int fd, void * into, size_t size, int flags, struct sockaddr * from, socklen_t * fromSize),
     fd, into, size, flags, from, fromSize)
CALL(ssize_t, -1, recv, recvmsg, (int fd, struct msghdr * message, int flags), fd, message, flags)
CALL(ssize_t, -1, send, send, (int fd, void const * from, size_t size, int flags), fd, from, size,
     flags)
CALL(ssize_t, -1, send, sendto,
     (int fd, void const * from, size_t size, int flags, struct sockaddr const * to,
      socklen_t toSize),
     fd, from, size, flags, to, toSize)
CALL(ssize_t, -1, send, sendmsg, (int fd, struct msghdr const * message, int flags), fd, message,
     flags)
CALL(ssize_t, -1, write, write, (int fd, void const * from, size_t size), fd, from, size)
CALL(ssize_t, -1, write, writev, (int fd, struct iovec const * from, int count), fd, from, count)
CALL(int, -1, poll, poll, (struct pollfd * fds, nfds_t count, int wait), fds, count, wait)
CALL(int, -1, epoll_create, epoll_create, (int size), size)
CALL(int, -1, epoll_create, epoll_create1, (int flags), flags)
CALL(int, -1, epoll_ctl, epoll_ctl, (int epoll, int what, int fd, struct epoll_event * event),
     epoll, what, fd, event)
CALL(int, -1, epoll_wait, epoll_wait, (int epoll, struct epoll_event * events, int count, int wait),
     epoll, events, count, wait)
CALL(int, -1, eventfd, eventfd, (unsigned value, int flags), value, flags)
CALL(int, -1, timer_create, timer_create,
     (clockid_t clock, struct sigevent * event, timer_t * timer), clock, event, timer)
CALL(int, -1, socketpair, socketpair, (int domain, int type, int protocol, int pair[2]), domain,
     type, protocol, pair)
CALL(int, -1, pipe, pipe, (int pair[2]), pair)
CALL(int, -1, pipe, pipe2, (int pair[2], int flags), pair, flags)
CALL(int, -1, setsockopt, setsockopt,
     (int fd, int level, int option, void const * value, socklen_t size), fd, level, option, value,
     size)
CALL(int, -1, getsockopt, getsockopt,
     (int fd, int level, int option, void * value, socklen_t * size), fd, level, option, value,
     size)
CALL(int, -1, getsockname, getsockname, (int fd, struct sockaddr * name, socklen_t * size), fd,
     name, size)
CALL(int, -1, stat, stat, (char const * path, struct stat * into), path, into)
CALL(int, -1, stat, lstat, (char const * path, struct stat * into), path, into)
CALL(int, -1, stat, fstat, (int fd, struct stat * into), fd, into)
CALL(int, -1, stat, stat64, (char const * path, struct stat64 * into), path, into)
CALL(int, -1, stat, lstat64, (char const * path, struct stat64 * into), path, into)
CALL(int, -1, stat, fstat64, (int fd, struct stat64 * into), fd, into)
CALL(int, -1, access, access, (char const * path, int mode), path, mode)
CALL(ssize_t, -1, readlink, readlink, (char const * path, char * into, size_t size), path, into,
     size)
CALL(int, -1, inotify_init, inotify_init1, (int flags), flags)
CALL(int, -1, inotify_add_watch, inotify_add_watch, (int fd, char const * path, uint32_t mask), fd,
     path, mask)
CALL(int, -1, unlink, unlink, (char const * path), path)
CALL(int, -1, chmod, chmod, (char const * path, mode_t mode), path, mode)
CALL(int, -1, chmod, fchmod, (int fd, mode_t mode), fd, mode)
CALL(int, -1, mkdir, mkdir, (char const * path, mode_t mode), path, mode)
CALL(int, -1, gethostname, gethostname, (char * into, size_t size), into, size)

int flock(int fd, int operation);
CALL(int, -1, flock, flock, (int fd, int operation), fd, operation)

// It fails after it has closed, as Linux has it.
static void * next_close;
int close(int fd) {
  int const result = NEXT(close)(fd);
  return fails(KIND_close, CALLER) ? -1 : result;
}

static void * next_pthread_create;
int pthread_create(pthread_t * thread, pthread_attr_t const * attributes, void * (*run)(void *),
                   void * argument) {
  return fails(KIND_pthread_create, CALLER)
             ? EAGAIN
             : NEXT(pthread_create)(thread, attributes, run, argument);
}

// What follows the flags is there or not; to pass what is not there does no harm.
#define OPEN(name, parameters, ...)                                                                \
  static void * next_##name;                                                                       \
  int name parameters {                                                                            \
    va_list rest;                                                                                  \
    va_start(rest, flags);                                                                         \
    mode_t const mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;           \
    va_end(rest);                                                                                  \
    return fails(KIND_open, CALLER) ? -1 : NEXT(name)(__VA_ARGS__, flags, mode);                   \
  }
OPEN(open, (char const * path, int flags, ...), path)
OPEN(open64, (char const * path, int flags, ...), path)
OPEN(openat, (int folder, char const * path, int flags, ...), folder, path)
OPEN(openat64, (int folder, char const * path, int flags, ...), folder, path)

#define FCNTL(name)                                                                                \
  static void * next_##name;                                                                       \
  int name(int fd, int command, ...) {                                                             \
    va_list rest;                                                                                  \
    va_start(rest, command);                                                                       \
    void * const argument = va_arg(rest, void *);                                                  \
    va_end(rest);                                                                                  \
    return fails(KIND_fcntl, CALLER) ? -1 : NEXT(name)(fd, command, argument);                     \
  }
FCNTL(fcntl)
FCNTL(fcntl64)
