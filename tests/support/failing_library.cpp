// For LD_PRELOAD: C functions that fail on demand in a program that knows nothing of it.
//
// The program and its test share a page of memory, the file that FAILING_CALLS names; without it
// every call is passed on. tests/e2e/test_failing_calls.py is the other side and has the same
// layout.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

enum Call { allocation, directory, entry, file, working_directory, sending, receiving, logging };
constexpr int calls = logging + 1;

constexpr int slices_per_ms = 5;

// In place of an error.
constexpr int make_short = -1;  ///< the call transfers one byte
constexpr int make_full = -2;   ///< allocations fail while there would be more memory in use
                                ///< than there was before the first that failed

struct Plan {
    std::atomic<std::uint32_t> from;    ///< the first call that fails, counted from 1; 0: none
    std::atomic<std::uint32_t> times;   ///< so many in a row fail
    std::atomic<std::int32_t> error;    ///< errno, or make_short
    std::atomic<std::uint32_t> count;   ///< calls since `from` was set
    std::atomic<std::uint32_t> failed;  ///< of them
};

struct Page {
    Plan plans[calls];
    std::atomic<std::uint32_t> idle;         ///< how many slices of a poll() saw nothing to do
    std::atomic<std::uint32_t> connections;  ///< calls of connect()
    std::atomic<std::uint64_t> skipped;      ///< nanoseconds that the steady clock is ahead
};

Page* page = nullptr;
std::int64_t used = 0;   ///< bytes of memory in use, since the start
std::int64_t limit = 0;  ///< for make_full

__attribute__((constructor)) void share_page()
{
    const char* const path = std::getenv("FAILING_CALLS");
    const int descriptor = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (descriptor == -1) {
        return;
    }
    void* const memory =
        mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    if (memory != MAP_FAILED) {
        page = static_cast<Page*>(memory);
    }
}

/// What the plan has for this call, which takes so many bytes of memory: 0, or an error.
int error_of(Call call, std::size_t bytes = 0)
{
    if (page == nullptr) {
        return 0;
    }
    Plan& plan = page->plans[call];
    const std::uint32_t from = plan.from;
    if (from == 0) {
        return 0;
    }
    const std::uint32_t number = ++plan.count;
    if (number < from || number - from >= plan.times) {
        return 0;
    }
    if (plan.error == make_full) {
        limit = number == from ? used : limit;
        if (used + static_cast<std::int64_t>(bytes) <= limit) {
            return 0;
        }
    }
    ++plan.failed;
    return plan.error == make_full ? ENOMEM : plan.error.load();
}

/// Sets errno if the call is to fail.
bool fails(Call call, std::size_t bytes = 0)
{
    const int error = error_of(call, bytes);
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

/// A block that was not there before, or null.
void* counted(void* block)
{
    used += static_cast<std::int64_t>(malloc_usable_size(block));
    return block;
}

bool is_of_kind(int descriptor, mode_t kind)
{
    struct stat status;
    return fstat(descriptor, &status) == 0 && (status.st_mode & S_IFMT) == kind;
}

/// Reads or writes, or does not, as `error` says.
template <typename Transfer>
ssize_t transfer(int error, std::size_t size, Transfer real)
{
    if (error > 0) {
        errno = error;
        return -1;
    }
    return real(error == make_short && size > 1 ? 1 : size);
}

template <typename Function>
Function next(const char* name, Function /*same type*/)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

// The C library's own names for what is replaced here, since dlsym() itself allocates.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t number, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

void* malloc(size_t size) noexcept
{
    return fails(allocation, size) ? nullptr : counted(__libc_malloc(size));
}

void* calloc(size_t number, size_t size) noexcept
{
    return fails(allocation, number * size) ? nullptr : counted(__libc_calloc(number, size));
}

void* realloc(void* block, size_t size) noexcept
{
    const size_t old_size = malloc_usable_size(block);
    if (fails(allocation, size > old_size ? size - old_size : 0)) {
        return nullptr;
    }
    void* const resized = __libc_realloc(block, size);
    if (resized != nullptr || size == 0) {
        used -= static_cast<std::int64_t>(old_size);
    }
    return counted(resized);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept
{
    return fails(allocation, size) ? nullptr : counted(__libc_memalign(alignment, size));
}

int posix_memalign(void** block, size_t alignment, size_t size) noexcept
{
    void* const memory = aligned_alloc(alignment, size);
    if (memory == nullptr) {
        return ENOMEM;
    }
    *block = memory;
    return 0;
}

void free(void* block) noexcept
{
    used -= static_cast<std::int64_t>(malloc_usable_size(block));
    __libc_free(block);
}

DIR* opendir(const char* path)
{
    static const auto real = next("opendir", &opendir);
    return fails(directory) ? nullptr : real(path);
}

dirent64* readdir64(DIR* stream)
{
    static const auto real = next("readdir64", &readdir64);
    return fails(entry) ? nullptr : real(stream);
}

FILE* fopen(const char* path, const char* mode)
{
    static const auto real = next("fopen", &fopen);
    return fails(file) ? nullptr : real(path, mode);
}

FILE* fopen64(const char* path, const char* mode)
{
    static const auto real = next("fopen64", &fopen64);
    return fails(file) ? nullptr : real(path, mode);
}

char* getcwd(char* buffer, size_t size) noexcept
{
    static const auto real = next("getcwd", &getcwd);
    return fails(working_directory) ? nullptr : real(buffer, size);
}

char* get_current_dir_name() noexcept
{
    static const auto real = next("get_current_dir_name", &get_current_dir_name);
    return fails(working_directory) ? nullptr : real();
}

ssize_t read(int descriptor, void* buffer, size_t size)
{
    static const auto real = next("read", &read);
    const int error = is_of_kind(descriptor, S_IFSOCK) ? error_of(receiving) : 0;
    return transfer(error, size, [=](size_t part) { return real(descriptor, buffer, part); });
}

ssize_t write(int descriptor, const void* buffer, size_t size)
{
    static const auto real = next("write", &write);
    const int error = is_of_kind(descriptor, S_IFSOCK)  ? error_of(sending)
                      : is_of_kind(descriptor, S_IFREG) ? error_of(logging)
                                                        : 0;
    return transfer(error, size, [=](size_t part) { return real(descriptor, buffer, part); });
}

int connect(int descriptor, const sockaddr* address, socklen_t length)
{
    static const auto real = next("connect", &connect);
    if (page != nullptr) {
        ++page->connections;
    }
    return real(descriptor, address, length);
}

/// In short slices. If two of them pass from here on, nothing was left to do.
int ppoll(pollfd* descriptors, nfds_t number, const timespec* limit, const sigset_t* mask)
{
    static const auto real = next("ppoll", &ppoll);
    if (page == nullptr || limit == nullptr || (limit->tv_sec == 0 && limit->tv_nsec == 0)) {
        return real(descriptors, number, limit, mask);
    }
    const long long slices =
        limit->tv_sec * 1000LL * slices_per_ms + limit->tv_nsec / (1000000 / slices_per_ms);
    const timespec slice = {0, 1000000 / slices_per_ms};
    int ready = 0;
    for (long long waited = 0; ready == 0 && waited <= slices; ++waited) {
        ready = real(descriptors, number, &slice, mask);
        page->idle += ready == 0 ? 1 : 0;
    }
    return ready;
}

/// Takes no time but on the steady clock.
int nanosleep(const timespec* time, timespec* left)
{
    static const auto real = next("nanosleep", &nanosleep);
    if (page == nullptr) {
        return real(time, left);
    }
    page->skipped += static_cast<std::uint64_t>(time->tv_sec) * 1000000000 +
                     static_cast<std::uint64_t>(time->tv_nsec);
    return 0;
}

int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    static const auto real = next("clock_gettime", &clock_gettime);
    const int rc = real(clock, time);
    if (rc == 0 && page != nullptr && clock == CLOCK_MONOTONIC) {
        const std::uint64_t skipped = page->skipped;
        const std::uint64_t nanoseconds =
            static_cast<std::uint64_t>(time->tv_nsec) + skipped % 1000000000;
        time->tv_sec += static_cast<time_t>(skipped / 1000000000 + nanoseconds / 1000000000);
        time->tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    }
    return rc;
}

}  // extern "C"
