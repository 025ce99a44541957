// Loaded into the helper in front of the C library: makes calls fail, and writes down what happens
// to the files of one folder.
//
//   LUMORA_FAULT      "KIND:N[:ERRNO]", comma separated: the N-th call of that kind (0: every one)
//                     fails, from `main` on or from when the kinds named before it have failed
//                     their N-th times; or, with -S for ERRNO, takes S seconds
//   LUMORA_FAULT_HIT  a file that is made when it has come to the N-th call of the last kind
//   LUMORA_DISK_LOG   where the calls for files in LUMORA_DISK_FOLDER are written down

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/faults/disk_log.h"

extern "C" {
struct AVCodecContext;
struct AVFrame;
int avcodec_send_frame(AVCodecContext* to, const AVFrame* frame);
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
  int error = 0;
  std::atomic<long> calls = 0;
};

std::array<Fault, 4> faults;
const Fault* lastFault = nullptr;
std::atomic<bool> armed = false;
int logDescriptor = -1;
std::array<char, 512> logFolder{};
constexpr int maximumLogged = 64;
std::array<std::atomic<bool>, maximumLogged> logged;  // by descriptor

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void noteHit() {
  if (const char* path = std::getenv("LUMORA_FAULT_HIT")) {
    static auto* const openFile = real<int(const char*, int, ...)>("open");
    static auto* const closeFile = real<int(int)>("close");
    closeFile(openFile(path, O_CREAT | O_WRONLY, 0600));
  }
}

// Whether this call is one that fails; sets errno.
bool fails(const char* kind, int usualError) {
  if (!armed) return false;
  for (Fault& fault : faults) {
    const bool isLater = fault.nth != 0 && fault.calls < fault.nth;
    if (std::strcmp(fault.kind.data(), kind) != 0) {
      if (isLater) return false;
      continue;
    }
    if (++fault.calls != fault.nth && fault.nth != 0) continue;
    if (&fault == lastFault) noteHit();
    if (fault.error < 0) return usleep(static_cast<useconds_t>(-fault.error) * 1'000'000) != 0;
    errno = fault.error != 0 ? fault.error : usualError;
    return true;
  }
  return false;
}

void parseFaults() {
  const char* text = std::getenv("LUMORA_FAULT");
  for (Fault& fault : faults) {
    if (text == nullptr) return;
    std::sscanf(text, "%23[a-z_0-9]:%ld:%d", fault.kind.data(), &fault.nth, &fault.error);
    lastFault = &fault;
    text = std::strchr(text, ',');
    if (text != nullptr) ++text;
  }
}

void openLog() {
  const char* path = std::getenv("LUMORA_DISK_LOG");
  const char* folder = std::getenv("LUMORA_DISK_FOLDER");
  if (path == nullptr || folder == nullptr) return;
  std::strncpy(logFolder.data(), folder, logFolder.size() - 1);
  logDescriptor = open(path, O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
}

bool isLogged(int descriptor) {
  return logDescriptor >= 0 && descriptor >= 0 && descriptor < maximumLogged && logged[descriptor];
}

void log(DiskLogEntry::Kind kind, std::uint64_t offset, const void* bytes, std::size_t count) {
  static auto* const writeBytes = real<ssize_t(int, const void*, std::size_t)>("write");
  const DiskLogEntry entry{kind, offset, count};
  static_cast<void>(writeBytes(logDescriptor, &entry, sizeof entry));
  if (bytes != nullptr) static_cast<void>(writeBytes(logDescriptor, bytes, count));
}

void logWrite(int to, off_t offset, const void* bytes, ssize_t count) {
  if (count <= 0 || !isLogged(to)) return;
  log(DiskLogEntry::written, static_cast<std::uint64_t>(offset), bytes,
      static_cast<std::size_t>(count));
}

// Files and the folder itself.
void follow(int descriptor, const char* path, int flags) {
  const std::size_t length = std::strlen(logFolder.data());
  if (logDescriptor < 0 || descriptor < 0 || descriptor >= maximumLogged) return;
  logged[descriptor] = std::strncmp(path, logFolder.data(), length) == 0;
  if (isLogged(descriptor) && (flags & O_CREAT) != 0) log(DiskLogEntry::created, 0, nullptr, 0);
}

int openAny(const char* name, const char* path, int flags, mode_t mode) {
  if (fails("open", EMFILE)) return -1;
  const int descriptor = real<int(const char*, int, ...)>(name)(path, flags, mode);
  follow(descriptor, path, flags);
  return descriptor;
}

int (*realMain)(int, char**, char**);

int armedMain(int count, char** arguments, char** environment) {
  parseFaults();
  openLog();
  armed = true;
  return realMain(count, arguments, environment);
}

mode_t modeOf(std::va_list list, int flags) {
  return (flags & O_CREAT) != 0 ? va_arg(list, mode_t) : 0;
}

}  // namespace

// NOLINTBEGIN: these are the C library's names and shapes
#define REAL(name) static auto* const next = real<decltype(name)>(#name)
#define FAULT(type, name, parameters, arguments, error, failure) \
  type name parameters {                                         \
    REAL(name);                                                  \
    if (fails(#name, error)) return failure;                     \
    return next arguments;                                       \
  }

extern "C" {

FAULT(int, socket, (int family, int type, int protocol) noexcept, (family, type, protocol), EMFILE,
      -1)
FAULT(int, bind, (int to, const sockaddr* address, socklen_t size) noexcept, (to, address, size),
      EADDRINUSE, -1)
FAULT(int, listen, (int on, int backlog) noexcept, (on, backlog), EADDRINUSE, -1)
FAULT(int, accept, (int on, sockaddr* address, socklen_t* size), (on, address, size), EMFILE, -1)
FAULT(ssize_t, recv, (int from, void* space, size_t size, int flags), (from, space, size, flags),
      ECONNRESET, -1)
FAULT(ssize_t, sendmsg, (int to, const msghdr* message, int flags), (to, message, flags), EPIPE, -1)
FAULT(int, epoll_create1, (int flags) noexcept, (flags), EMFILE, -1)
FAULT(int, epoll_ctl, (int on, int what, int descriptor, epoll_event* event) noexcept,
      (on, what, descriptor, event), ENOMEM, -1)
FAULT(int, eventfd, (unsigned initial, int flags) noexcept, (initial, flags), EMFILE, -1)
FAULT(int, timerfd_create, (clockid_t clock, int flags) noexcept, (clock, flags), EMFILE, -1)
FAULT(int, timerfd_settime, (int timer, int flags, const itimerspec* to, itimerspec* from) noexcept,
      (timer, flags, to, from), EINVAL, -1)
FAULT(int, pipe, (int ends[2]) noexcept, (ends), EMFILE, -1)
FAULT(int, link, (const char* from, const char* to) noexcept, (from, to), EPERM, -1)
FAULT(int, unlink, (const char* path) noexcept, (path), EACCES, -1)
FAULT(int, avcodec_send_frame, (AVCodecContext * to, const AVFrame* frame), (to, frame), EIO, -EIO)
FAULT(ssize_t, read, (int from, void* space, size_t size), (from, space, size), EIO, -1)

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* with) noexcept {
  REAL(pthread_create);
  return fails("pthread_create", EAGAIN) ? EAGAIN : next(thread, attributes, run, with);
}

#define OPEN(name)                             \
  int name(const char* path, int flags, ...) { \
    std::va_list list;                         \
    va_start(list, flags);                     \
    const mode_t mode = modeOf(list, flags);   \
    va_end(list);                              \
    return openAny(#name, path, flags, mode);  \
  }
OPEN(open)
OPEN(open64)

ssize_t write(int to, const void* bytes, size_t size) {
  REAL(write);
  if (fails("write", ENOSPC)) return -1;
  const off_t at = isLogged(to) ? lseek(to, 0, SEEK_CUR) : 0;
  const ssize_t count = next(to, bytes, size);
  logWrite(to, at, bytes, count);
  return count;
}
ssize_t pwrite(int to, const void* bytes, size_t size, off_t offset) {
  REAL(pwrite);
  if (fails("pwrite", EIO)) return -1;
  const ssize_t count = next(to, bytes, size, offset);
  logWrite(to, offset, bytes, count);
  return count;
}
int fdatasync(int descriptor) {
  REAL(fdatasync);
  if (fails("fdatasync", EIO)) return -1;
  const int status = next(descriptor);
  if (status == 0 && isLogged(descriptor)) log(DiskLogEntry::synced, 0, nullptr, 0);
  return status;
}
int fsync(int descriptor) {
  REAL(fsync);
  if (fails("fsync", EIO)) return -1;
  const int status = next(descriptor);
  if (status == 0 && isLogged(descriptor)) log(DiskLogEntry::namesSynced, 0, nullptr, 0);
  return status;
}
int renameat2(int fromFolder, const char* from, int toFolder, const char* to,
              unsigned flags) noexcept {
  REAL(renameat2);
  if (fails("renameat2", EIO)) return -1;
  const int status = next(fromFolder, from, toFolder, to, flags);
  if (status == 0 && logDescriptor >= 0) log(DiskLogEntry::renamed, 0, nullptr, 0);
  return status;
}
int fallocate(int descriptor, int mode, off_t offset, off_t size) {
  REAL(fallocate);
  if (fails("fallocate", ENOSPC)) return -1;
  return next(descriptor, mode, offset, size);
}
int ftruncate(int descriptor, off_t size) noexcept {
  REAL(ftruncate);
  if (fails("ftruncate", EIO)) return -1;
  const int status = next(descriptor, size);
  if (status == 0 && isLogged(descriptor))
    log(DiskLogEntry::truncated, static_cast<std::uint64_t>(size), nullptr, 0);
  return status;
}
int close(int descriptor) {
  REAL(close);
  if (descriptor >= 0 && descriptor < maximumLogged) logged[descriptor] = false;
  const int status = next(descriptor);  // is closed whatever it says
  return fails("close", EIO) ? -1 : status;
}

#ifndef LUMORA_OWN_HEAP
void* malloc(size_t size) { return fails("malloc", ENOMEM) ? nullptr : __libc_malloc(size); }
void* calloc(size_t count, size_t size) {
  return fails("malloc", ENOMEM) ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
  return fails("malloc", ENOMEM) ? nullptr : __libc_realloc(block, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
  return fails("malloc", ENOMEM) ? nullptr : __libc_memalign(alignment, size);
}
void* memalign(size_t alignment, size_t size) {
  return fails("malloc", ENOMEM) ? nullptr : __libc_memalign(alignment, size);
}
int posix_memalign(void** block, size_t alignment, size_t size) {
  if (fails("malloc", ENOMEM)) return ENOMEM;
  *block = __libc_memalign(alignment, size);
  return *block == nullptr ? ENOMEM : 0;
}
#endif

int __libc_start_main(int (*main)(int, char**, char**), int count, char** arguments,
                      void (*start)(), void (*end)(), void (*loaderEnd)(), void* stack) {
  realMain = main;
  using Start =
      int(int (*)(int, char**, char**), int, char**, void (*)(), void (*)(), void (*)(), void*);
  return real<Start>("__libc_start_main")(armedMain, count, arguments, start, end, loaderEnd,
                                          stack);
}
}
// NOLINTEND
