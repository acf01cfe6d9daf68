// Preloaded into the unmodified daemon: takes the wall clock, the interval timer, statvfs, the eMMC's ioctl and the
// wait for signals from the rig's page; everything else passes through. Uses no C++ runtime and no sanitizer,
// because it runs inside any build of the daemon.

#include "station_page.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/mmc/ioctl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr std::int64_t NANOSECONDS = 1'000'000'000;
constexpr std::int64_t MICROSECONDS = 1'000'000;
constexpr std::size_t KERNEL_SIGSET_SIZE = 8;

#ifdef SYS_rt_sigtimedwait_time64
constexpr long TIMED_WAIT = SYS_rt_sigtimedwait_time64;
constexpr long GET_CLOCK = SYS_clock_gettime64;
#else
constexpr long TIMED_WAIT = SYS_rt_sigtimedwait;
constexpr long GET_CLOCK = SYS_clock_gettime;
#endif

constinit StationPage *page = nullptr; // null before the constructor, when calls pass through

// The daemon's children get neither the library nor the page.
__attribute__((constructor)) void attach() {
    const char *descriptor = std::getenv(STATION_PAGE_VARIABLE);
    if (descriptor == nullptr) {
        return;
    }
    const int fd = std::atoi(descriptor); // NOLINT(cert-err34-c): the rig's own
    void *memory = mmap(nullptr, STATION_PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        abort();
    }
    close(fd);
    page = static_cast<StationPage *>(memory);
    fcntl(page->wake_fd, F_SETFD, FD_CLOEXEC);
    unsetenv(STATION_PAGE_VARIABLE);
    unsetenv("LD_PRELOAD");
}

timespec wall_clock() {
    timespec now{};
    if (page == nullptr) {
        syscall(GET_CLOCK, CLOCK_REALTIME, &now);
    } else {
        const std::int64_t nanoseconds = page->now.load();
        now.tv_sec = nanoseconds / NANOSECONDS;
        now.tv_nsec = static_cast<long>(nanoseconds % NANOSECONDS);
    }
    return now;
}

void enter_wait() {
    constexpr std::uint64_t one = 1;
    page->settled.store(page->taken.load());
    page->waits.fetch_add(1);
    const int saved_errno = errno;
    if (syscall(SYS_write, page->wake_fd, &one, sizeof one) != sizeof one) { // a call that never fails
        abort();
    }
    errno = saved_errno;
}

int take_signal(const sigset_t *set, siginfo_t *info, const timespec *timeout) {
    const long signo = syscall(TIMED_WAIT, set, info, timeout, KERNEL_SIGSET_SIZE);
    if (page != nullptr && signo == SIGALRM) {
        page->taken.fetch_add(1);
    }
    return static_cast<int>(signo);
}

const StationDisk *find_disk(const char *path) {
    if (page != nullptr && path != nullptr) {
        for (const StationDisk &disk : page->disks) {
            if (disk.path[0] != '\0' && strcmp(disk.path, path) == 0) {
                return &disk;
            }
        }
    }
    return nullptr;
}

using Statvfs = int(const char *, struct statvfs *);

int ask_disk(const char *path, struct statvfs *result, const char *symbol) {
    const StationDisk *disk = find_disk(path);
    if (disk == nullptr) {
        auto *real = reinterpret_cast<Statvfs *>(dlsym(RTLD_NEXT, symbol));
        return real(path, result);
    }
    memset(result, 0, sizeof *result);
    result->f_bsize = 4096;
    result->f_frsize = 4096;
    result->f_blocks = disk->blocks;
    result->f_bfree = disk->free;
    result->f_bavail = disk->available;
    if (disk->result != 0) {
        errno = disk->error;
    }
    return disk->result;
}

int ask_mmc(mmc_ioc_cmd *command) {
    StationMmc &mmc = page->mmc;
    mmc.commands += 1;
    mmc.write_flag = command->write_flag;
    mmc.is_acmd = command->is_acmd;
    mmc.opcode = command->opcode;
    mmc.argument = command->arg;
    mmc.flags = command->flags;
    mmc.blksz = command->blksz;
    mmc.blocks = command->blocks;
    if (mmc.result != 0) {
        errno = mmc.error;
    } else {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel's interface
        memcpy(reinterpret_cast<void *>(static_cast<std::uintptr_t>(command->data_ptr)), mmc.ext_csd,
               sizeof mmc.ext_csd);
    }
    return mmc.result;
}

bool uses_disk() { return page == nullptr || page->uses_disk; }

} // namespace

// With 64-bit times on a 32-bit board the headers rename these to __..64, as in the daemon.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" {

StationPage *station_page() { return page; }

time_t time(time_t *result) noexcept {
    const time_t now = wall_clock().tv_sec;
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

int gettimeofday(timeval *result, void * /*zone*/) noexcept {
    const timespec now = wall_clock();
    result->tv_sec = now.tv_sec;
    result->tv_usec = now.tv_nsec / 1000;
    return 0;
}

int clock_gettime(clockid_t clock, timespec *result) noexcept {
    if (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE) {
        return static_cast<int>(syscall(GET_CLOCK, clock, result));
    }
    *result = wall_clock();
    return 0;
}

int setitimer(__itimer_which_t which, const itimerval *timer, itimerval *old) noexcept {
    if (page == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    page->timer.which = which;
    page->timer.period = timer->it_interval.tv_sec * MICROSECONDS + timer->it_interval.tv_usec;
    page->timer.first = timer->it_value.tv_sec * MICROSECONDS + timer->it_value.tv_usec;
    page->timer.calls += 1;
    if (old != nullptr) {
        *old = {};
    }
    return 0;
}

int sigwaitinfo(const sigset_t *set, siginfo_t *info) {
    if (page != nullptr) {
        enter_wait();
    }
    return take_signal(set, info, nullptr);
}

int sigtimedwait(const sigset_t *set, siginfo_t *info, const timespec *timeout) {
    return take_signal(set, info, timeout);
}

int fdatasync(int fd) { return uses_disk() ? static_cast<int>(syscall(SYS_fdatasync, fd)) : 0; }

int fsync(int fd) { return uses_disk() ? static_cast<int>(syscall(SYS_fsync, fd)) : 0; }

// With 64-bit file offsets this is statvfs64, as in the daemon.
int statvfs(const char *path, struct statvfs *result) noexcept { return ask_disk(path, result, "statvfs64"); }

#ifdef __LP64__
int plain_statvfs(const char *path, struct statvfs *result) noexcept __asm__("statvfs");
int plain_statvfs(const char *path, struct statvfs *result) noexcept { return ask_disk(path, result, "statvfs"); }
#endif

int ioctl(int fd, unsigned long request, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (page != nullptr && request == MMC_IOC_CMD) {
        return ask_mmc(static_cast<mmc_ioc_cmd *>(argument));
    }
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
