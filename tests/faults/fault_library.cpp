// Preloaded into the helper, before the C library. Makes calls of the helper fail, and logs what
// the helper writes and syncs in one folder.
//
//   LUMORA_FAULT        entries "KIND:N[:ERRNO]", comma separated. KIND is a function's name.
//                       "malloc" means every function of the heap. The N-th call of the kind
//                       fails (0: every call). With -S in place of ERRNO, the call takes S seconds
//                       longer, and does not fail. Calls before `main` do not count. Counting for
//                       an entry starts when all entries before it have had their N-th call;
//                       entries with N = 0 are not waited for. `pthread_create` and
//                       `avcodec_send_frame` ignore ERRNO.
//   LUMORA_FAULT_HIT    this file is created when the last entry makes a call fail or wait
//   LUMORA_DISK_FOLDER  the folder whose files are logged
//   LUMORA_DISK_LOG     the file for the log; needs LUMORA_DISK_FOLDER
//   LUMORA_SPEED        N: the helper's monotonic clock shows N times the uptime. Sleeps and the
//                       kernel's timers stay real. Without effect in sanitized builds.

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "tests/faults/disk_log.h"

extern "C" {
struct AVCodecContext;
struct AVFrame;
int avcodec_send_frame(AVCodecContext* to, const AVFrame* frame);
void avcodec_free_context(AVCodecContext** of);
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
}

namespace {

using lumora::tests::DiskLogEntry;

struct Fault {
  std::array<char, 24> kind{};
  long nth = 0;
  double error = 0;
  std::atomic<long> calls = 0;
};

std::array<Fault, 4> faults;
const Fault* lastFault = nullptr;
std::atomic<bool> armed = false;
std::int64_t speed = 1;  // of the helper's clock
int logDescriptor = -1;
const char* logFolder = nullptr;

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Logs a call if `of` is a descriptor of the folder or of a file in it, or is -1.
void log(int of, DiskLogEntry::Kind kind, off_t offset = 0, const void* bytes = nullptr,
         ssize_t count = 0) {
  if (logDescriptor < 0) return;
  char link[32], path[256] = {};
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", of);
  const bool isFound = readlink(link, path, sizeof path - 1) > 0;
  if (of >= 0 && (!isFound || std::strncmp(path, logFolder, std::strlen(logFolder)) != 0)) return;
  static auto* const writeParts = real<ssize_t(int, const iovec*, int)>("writev");
  const auto size = static_cast<std::size_t>(count);
  DiskLogEntry entry{kind, static_cast<std::uint64_t>(offset), size};
  // One call, so that no other thread's entry comes between.
  const iovec parts[] = {{&entry, sizeof entry}, {const_cast<void*>(bytes), size}};
  static_cast<void>(writeParts(logDescriptor, parts, 2));
}

// Returns true, and sets errno, if this call must fail. If it must wait, waits and returns false.
bool fails(const char* kind, int usualError) {
  if (!armed) return false;
  for (Fault& fault : faults) {
    const bool isOneCall = fault.nth != 0;
    const bool isPast = isOneCall && fault.calls >= fault.nth;
    const bool isKind = std::strcmp(fault.kind.data(), kind) == 0;
    if (isPast || (!isKind && !isOneCall)) continue;
    if (!isKind || (isOneCall && ++fault.calls != fault.nth)) return false;
    if (const char* hit = std::getenv("LUMORA_FAULT_HIT"); hit && &fault == lastFault)
      mknod(hit, S_IFREG | 0600, 0);
    log(-1, DiskLogEntry::failed);
    if (fault.error < 0) return usleep(static_cast<useconds_t>(-fault.error * 1e6)), false;
    errno = fault.error != 0 ? static_cast<int>(fault.error) : usualError;
    return true;
  }
  return false;
}

int (*realMain)(int, char**, char**);

int armedMain(int count, char** arguments, char** environment) {
  const char* text = std::getenv("LUMORA_FAULT");
  for (Fault& fault : faults) {
    if (text == nullptr) break;
    std::sscanf(text, "%23[a-z_0-9]:%ld:%lf", fault.kind.data(), &fault.nth, &fault.error);
    lastFault = &fault;
    text = std::strchr(text, ',');
    if (text != nullptr) ++text;
  }
  if (const char* times = std::getenv("LUMORA_SPEED")) speed = std::atol(times);
  if (const char* logPath = std::getenv("LUMORA_DISK_LOG")) {
    logFolder = realpath(std::getenv("LUMORA_DISK_FOLDER"), nullptr);
    logDescriptor = open(logPath, O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
  }
  armed = true;
  return realMain(count, arguments, environment);
}

}  // namespace

// NOLINTBEGIN: names and signatures of the C library
#define REAL(name) static auto* const next = real<decltype(name)>(#name)
// What follows `error` is a statement. It runs after the real call, and can use its `result`.
#define FAULT_AS(failure, type, name, parameters, arguments, error, ...) \
  type name parameters {                                                 \
    REAL(name);                                                          \
    if (fails(#name, error)) return failure;                             \
    const type result = next arguments;                                  \
    __VA_OPT__(__VA_ARGS__;)                                             \
    return result;                                                       \
  }
#define FAULT(...) FAULT_AS(-1, __VA_ARGS__)

extern "C" {

FAULT(int, socket, (int family, int type, int how) noexcept, (family, type, how), EMFILE)
FAULT(int, bind, (int to, const sockaddr* at, socklen_t size) noexcept, (to, at, size), EADDRINUSE)
FAULT(int, listen, (int on, int backlog) noexcept, (on, backlog), EADDRINUSE)
FAULT(int, accept, (int on, sockaddr* from, socklen_t* size), (on, from, size), EMFILE)
FAULT(ssize_t, recv, (int on, void* to, size_t size, int how), (on, to, size, how), ECONNRESET)
FAULT(ssize_t, sendmsg, (int on, const msghdr* message, int how), (on, message, how), EPIPE)
FAULT(int, epoll_create1, (int flags) noexcept, (flags), EMFILE)
FAULT(int, epoll_ctl, (int on, int what, int descriptor, epoll_event* event) noexcept,
      (on, what, descriptor, event), ENOMEM)
FAULT(int, eventfd, (unsigned initial, int flags) noexcept, (initial, flags), EMFILE)
FAULT(int, timerfd_create, (clockid_t clock, int flags) noexcept, (clock, flags), EMFILE)
FAULT(int, timerfd_settime, (int timer, int flags, const itimerspec* to, itimerspec* from) noexcept,
      (timer, flags, to, from), EINVAL)
FAULT(int, pipe, (int ends[2]) noexcept, (ends), EMFILE)
FAULT(int, link, (const char* from, const char* to) noexcept, (from, to), EPERM)
FAULT(int, unlink, (const char* path) noexcept, (path), EACCES)
FAULT(ssize_t, read, (int from, void* space, size_t size), (from, space, size), EIO)
FAULT(int, fallocate, (int on, int how, off_t at, off_t size), (on, how, at, size), ENOSPC)
FAULT(ssize_t, pwrite, (int to, const void* bytes, size_t size, off_t at), (to, bytes, size, at),
      EIO, if (result > 0) log(to, DiskLogEntry::written, at, bytes, result))
FAULT(ssize_t, write, (int to, const void* bytes, size_t size), (to, bytes, size), ENOSPC,
      if (result > 0 && logDescriptor >= 0)
          log(to, DiskLogEntry::written, lseek(to, 0, SEEK_CUR) - result, bytes, result))
FAULT(int, fdatasync, (int file), (file), EIO, if (result == 0) log(file, DiskLogEntry::synced))
FAULT(int, fsync, (int file), (file), EIO, if (result == 0) log(file, DiskLogEntry::namesSynced))
FAULT(int, ftruncate, (int file, off_t size) noexcept, (file, size), EIO,
      if (result == 0) log(file, DiskLogEntry::truncated, size))
FAULT(int, renameat2,
      (int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) noexcept,
      (fromFolder, from, toFolder, to, flags), EIO, if (result == 0) log(-1, DiskLogEntry::renamed))
FAULT_AS(EAGAIN, int, pthread_create,
         (pthread_t * thread, const pthread_attr_t* as, void* (*run)(void*), void* with) noexcept,
         (thread, as, run, with), EAGAIN)

// The kind "hold_frame": instead of failing, the call keeps its picture until the next such call.
// A hardware encoder may do so, even after it has returned the packet.
void holdFrame(const AVFrame* of) {
  static auto* const clone = real<AVFrame*(const AVFrame*)>("av_frame_clone");
  static auto* const free = real<void(AVFrame**)>("av_frame_free");
  thread_local AVFrame* held = nullptr;
  if (!fails("hold_frame", 0)) return;
  free(&held);
  held = clone(of);
}

// A real encoder that has failed may crash when it is called again. This one always aborts.
std::atomic<AVCodecContext*> failedEncoder = nullptr;

int avcodec_send_frame(AVCodecContext* to, const AVFrame* of) {
  REAL(avcodec_send_frame);
  if (to == failedEncoder) abort();
  holdFrame(of);
  if (!fails("avcodec_send_frame", EIO)) return next(to, of);
  failedEncoder = to;
  return -EIO;
}

void avcodec_free_context(AVCodecContext** of) {
  REAL(avcodec_free_context);
  if (*of == failedEncoder) failedEncoder = nullptr;
  next(of);
}

#define OPEN(name)                                                    \
  int name(const char* path, int flags, ...) {                        \
    REAL(name);                                                       \
    std::va_list list;                                                \
    va_start(list, flags);                                            \
    const mode_t mode = (flags & O_CREAT) ? va_arg(list, mode_t) : 0; \
    va_end(list);                                                     \
    return fails("open", EMFILE) ? -1 : next(path, flags, mode);      \
  }
OPEN(open)
OPEN(open64)

int close(int descriptor) {
  REAL(close);
  const int status = next(descriptor);  // really closes it, even if the next line reports a failure
  return fails("close", EIO) ? -1 : status;
}

#if !LUMORA_SANITIZED
#define HEAP(name, parameters, call) \
  void* name parameters { return fails("malloc", ENOMEM) ? nullptr : call; }
HEAP(malloc, (size_t size), __libc_malloc(size))
HEAP(calloc, (size_t count, size_t size), __libc_calloc(count, size))
HEAP(realloc, (void* block, size_t size), __libc_realloc(block, size))
HEAP(aligned_alloc, (size_t alignment, size_t size), __libc_memalign(alignment, size))
HEAP(memalign, (size_t alignment, size_t size), __libc_memalign(alignment, size))
int posix_memalign(void** block, size_t alignment, size_t size) {
  *block = fails("malloc", ENOMEM) ? nullptr : __libc_memalign(alignment, size);
  return *block == nullptr ? ENOMEM : 0;
}

static timespec scaled(const timespec& time, std::int64_t times, std::int64_t divisor) {
  constexpr std::int64_t second = 1'000'000'000;
  const std::int64_t all = (time.tv_sec * second + time.tv_nsec) / divisor * times;
  return {all / second, all % second};
}
int clock_gettime(clockid_t clock, timespec* now) noexcept {
  REAL(clock_gettime);
  const int status = next(clock, now);
  if (status == 0 && clock == CLOCK_MONOTONIC) *now = scaled(*now, speed, 1);
  return status;
}
int pthread_cond_clockwait(pthread_cond_t* on, pthread_mutex_t* held, clockid_t clock,
                           const timespec* until) {
  REAL(pthread_cond_clockwait);
  const timespec real = scaled(*until, 1, speed);
  return next(on, held, clock, &real);
}
#endif

int __libc_start_main(int (*main)(int, char**, char**), int count, char** arguments,
                      void (*start)(), void (*end)(), void (*loaderEnd)(), void* stack) {
  REAL(__libc_start_main);
  realMain = main;
  return next(armedMain, count, arguments, start, end, loaderEnd, stack);
}
}
// NOLINTEND
