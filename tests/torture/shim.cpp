// Preloaded into the real program, it lets one chosen call fail, once.
//
// A page of memory that is shared with the driver (the file $WEIR_TORTURE) says
// which call of which function that is, counted from the arming, and takes down
// how many calls there were and how many allocations are alive. Sleeps last a tenth, those from a
// second on a hundredth, so that thousands of streams pass.
//
// Threads: any; all of the page is atomic, and nothing here allocates or logs.
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <ctime>

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): glibc's own.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* memory);
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace {

// The order is the driver's.
enum Call {
  kMalloc,
  kCalloc,
  kRealloc,
  kMemalign,
  kSocket,
  kConnect,
  kAccept,
  kSetsockopt,
  kFcntl,
  kSelect,
  kPoll,
  kSleep,
  kClientRead,
  kClientWrite,
  kUpstreamRead,
  kUpstreamWrite,
  kLogWrite,
  kThread,
  kResolve,
  kCalls
};

struct Page {
  std::atomic<std::int64_t> armed;  // the call that is to fail, -1 for none; set last
  std::atomic<std::int64_t> nth;    // from 1
  std::atomic<std::int64_t> error;  // errno of the failure; 0 is a time-out
  std::atomic<std::int64_t> fired;  // set last
  std::atomic<std::int64_t> alive;  // allocations
  std::atomic<std::int64_t> counts[kCalls];
};

Page before_the_start{{-1}, {0}, {0}, {0}, {0}, {}};
Page* page = &before_the_start;

__attribute__((constructor)) void begin() {
  const char* const name = std::getenv("WEIR_TORTURE");
  const int fd = name == nullptr ? -1 : open(name, O_RDWR | O_CLOEXEC);
  void* const memory = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) abort();
  page = static_cast<Page*>(memory);
  (void)close(fd);
}

bool fails(Call call) {
  const std::int64_t number = ++page->counts[call];
  if (page->armed != call || page->nth != number) return false;
  errno = static_cast<int>(page->error.load());
  page->fired = 1;
  return true;
}

void* counted(void* memory) {
  if (memory != nullptr) ++page->alive;
  return memory;
}

template <class Function>
Function* next(const char* name, Function*) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define NEXT(function) static auto* const real = next(#function, &::function)

// Reads and writes of the player's side, the upstream side, and the log.
Call side(int fd, Call client, Call upstream) {
  constexpr int kPort = 7744;
  sockaddr_in local{};
  socklen_t size = sizeof local;
  const int saved = errno;
  const int status = getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size);
  errno = saved;
  if (status != 0) return kLogWrite;
  return ntohs(local.sin_port) == kPort ? client : upstream;
}

// A connection that was reset is of no more use to anybody.
ssize_t broken(int fd) {
  const int error = errno;
  if (error == ECONNRESET || error == EPIPE) (void)shutdown(fd, SHUT_RDWR);
  errno = error;
  return -1;
}

}  // namespace

extern "C" {

void* malloc(size_t size) noexcept {
  return fails(kMalloc) ? nullptr : counted(__libc_malloc(size));
}
void* calloc(size_t count, size_t size) noexcept {
  return fails(kCalloc) ? nullptr : counted(__libc_calloc(count, size));
}
void* realloc(void* memory, size_t size) noexcept {
  if (fails(kRealloc)) return nullptr;
  void* const moved = __libc_realloc(memory, size);
  if (memory == nullptr) return counted(moved);
  if (size == 0) --page->alive;
  return moved;
}
void* memalign(size_t alignment, size_t size) noexcept {
  return fails(kMemalign) ? nullptr : counted(__libc_memalign(alignment, size));
}
void* aligned_alloc(size_t alignment, size_t size) noexcept { return memalign(alignment, size); }
int posix_memalign(void** out, size_t alignment, size_t size) noexcept {
  *out = memalign(alignment, size);
  return *out == nullptr ? ENOMEM : 0;
}
void free(void* memory) noexcept {
  if (memory != nullptr) --page->alive;
  __libc_free(memory);
}

int socket(int domain, int type, int protocol) noexcept {
  NEXT(socket);
  return fails(kSocket) ? -1 : real(domain, type, protocol);
}
int connect(int fd, const sockaddr* address, socklen_t size) {
  NEXT(connect);
  return fails(kConnect) ? -1 : real(fd, address, size);
}
int accept(int fd, sockaddr* address, socklen_t* size) {
  NEXT(accept);
  return fails(kAccept) ? -1 : real(fd, address, size);
}
int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  NEXT(setsockopt);
  return fails(kSetsockopt) ? -1 : real(fd, level, name, value, size);
}
int fcntl(int fd, int command, ...) {
  NEXT(fcntl);
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return fails(kFcntl) ? -1 : real(fd, command, argument);
}
int select(int count, fd_set* read, fd_set* write, fd_set* other, timeval* timeout) {
  NEXT(select);
  return fails(kSelect) ? -1 : real(count, read, write, other, timeout);
}
int poll(pollfd* entries, nfds_t count, int timeout) {
  NEXT(poll);
  if (fails(kPoll)) return errno == 0 ? 0 : -1;
  return real(entries, count, timeout);
}
int nanosleep(const timespec* time, timespec* left) {
  NEXT(nanosleep);
  if (fails(kSleep)) return -1;
  constexpr long kSecond = 1'000'000'000;
  const long total = (time->tv_sec * kSecond + time->tv_nsec) / (time->tv_sec > 0 ? 100 : 10);
  const timespec shorter{total / kSecond, total % kSecond};
  return real(&shorter, left);
}
ssize_t read(int fd, void* bytes, size_t size) {
  NEXT(read);
  return fails(side(fd, kClientRead, kUpstreamRead)) ? broken(fd) : real(fd, bytes, size);
}
ssize_t recv(int fd, void* bytes, size_t size, int flags) {
  NEXT(recv);
  return fails(side(fd, kClientRead, kUpstreamRead)) ? broken(fd) : real(fd, bytes, size, flags);
}
ssize_t write(int fd, const void* bytes, size_t size) {
  NEXT(write);
  return fails(side(fd, kClientWrite, kUpstreamWrite)) ? broken(fd) : real(fd, bytes, size);
}
ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  NEXT(send);
  return fails(side(fd, kClientWrite, kUpstreamWrite)) ? broken(fd) : real(fd, bytes, size, flags);
}
int pthread_create(pthread_t* thread, const pthread_attr_t* options, void* (*entry)(void*),
                   void* argument) noexcept {
  NEXT(pthread_create);
  return fails(kThread) ? errno : real(thread, options, entry, argument);
}
int gethostbyname_r(const char* name, hostent* entry, char* space, size_t size, hostent** result,
                    int* error) {
  NEXT(gethostbyname_r);
  if (!fails(kResolve)) return real(name, entry, space, size, result, error);
  *result = nullptr;
  *error = TRY_AGAIN;
  return errno;
}

}  // extern "C"
