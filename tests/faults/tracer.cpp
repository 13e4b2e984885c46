#include "tracer.h"

#include "child.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <iterator>
#include <stdexcept>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavro_test {

namespace {

/// Where a call names its file.
enum class Names { Path, PathAt, LinkAt, PathSecond, Descriptor };

struct Known {
    std::uint64_t Number;
    const char* Name;
    Names Where;
    bool bChangesDisk;
};

constexpr Known known[] = {
#ifdef SYS_rename
    {SYS_rename, "rename", Names::Path, true},
    {SYS_unlink, "unlink", Names::Path, true},
    {SYS_rmdir, "rmdir", Names::Path, true},
    {SYS_mkdir, "mkdir", Names::Path, true},
    {SYS_symlink, "symlink", Names::PathSecond, true},
    {SYS_readlink, "readlink", Names::Path, false},
    {SYS_open, "open", Names::Path, true},
    {SYS_stat, "stat", Names::Path, false},
    {SYS_lstat, "lstat", Names::Path, false},
    {SYS_chmod, "chmod", Names::Path, true},
    {SYS_access, "access", Names::Path, false},
    {SYS_link, "link", Names::Path, true},
    {SYS_mknod, "mknod", Names::Path, true},
    {SYS_lchown, "chown", Names::Path, true},
#endif
    {SYS_renameat, "rename", Names::PathAt, true},
    {SYS_renameat2, "rename", Names::PathAt, true},
    {SYS_unlinkat, "unlinkat", Names::PathAt, true},
    {SYS_mkdirat, "mkdir", Names::PathAt, true},
    {SYS_symlinkat, "symlink", Names::LinkAt, true},
    {SYS_readlinkat, "readlink", Names::PathAt, false},
    {SYS_openat, "openat", Names::PathAt, true},
    {SYS_newfstatat, "newfstatat", Names::PathAt, false},
    {SYS_statx, "statx", Names::PathAt, false},
    {SYS_fchmodat, "fchmodat", Names::PathAt, true},
    {SYS_utimensat, "utimensat", Names::PathAt, true},
    {SYS_truncate, "truncate", Names::Path, true},
    {SYS_fstat, "fstat64", Names::Descriptor, false},
    {SYS_fchmod, "fchmod", Names::Descriptor, true},
    {SYS_read, "read", Names::Descriptor, false},
    {SYS_write, "write", Names::Descriptor, true},
    {SYS_writev, "writev", Names::Descriptor, true},
    {SYS_sendfile, "sendfile", Names::Descriptor, true},
    {SYS_copy_file_range, "copy_file_range", Names::Descriptor, true},
    {SYS_ftruncate, "truncate", Names::Descriptor, true},
    {SYS_lseek, "lseek", Names::Descriptor, false},
    {SYS_getdents64, "getdents64", Names::Descriptor, false},
    {SYS_pread64, "read", Names::Descriptor, false},
    {SYS_pwrite64, "write", Names::Descriptor, true},
    {SYS_fsync, "fsync", Names::Descriptor, false},
    {SYS_syncfs, "fsync", Names::Descriptor, false},
    {SYS_ioctl, "ioctl", Names::Descriptor, true},
    {SYS_fstatfs, "fstatfs", Names::Descriptor, false},
    {SYS_fchown, "chown", Names::Descriptor, true},
    {SYS_fchownat, "chown", Names::PathAt, true},
    {SYS_faccessat, "access", Names::PathAt, false},
    {SYS_faccessat2, "access", Names::PathAt, false},
    {SYS_linkat, "link", Names::PathAt, true},
    {SYS_mknodat, "mknod", Names::PathAt, true},
    {SYS_listxattr, "listxattr", Names::Path, false},
    {SYS_llistxattr, "listxattr", Names::Path, false},
    {SYS_flistxattr, "listxattr", Names::Descriptor, false},
    {SYS_getxattr, "getxattr", Names::Path, false},
    {SYS_lgetxattr, "getxattr", Names::Path, false},
    {SYS_fgetxattr, "getxattr", Names::Descriptor, false},
    {SYS_setxattr, "setxattr", Names::Path, true},
    {SYS_lsetxattr, "setxattr", Names::Path, true},
    {SYS_fsetxattr, "setxattr", Names::Descriptor, true},
    {SYS_removexattr, "removexattr", Names::Path, true},
    {SYS_lremovexattr, "removexattr", Names::Path, true},
    {SYS_fremovexattr, "removexattr", Names::Descriptor, true},
    {SYS_close, "close", Names::Descriptor, false},
    {SYS_getcwd, "getcwd", Names::Descriptor, false},
};

struct Harmless {
    std::uint64_t Number;
    const char* Why;
};

constexpr Harmless harmless[] = {
    {SYS_fcntl, "asks an open descriptor for its flags, or sets them, which does not fail"},
    {SYS_brk, "memory: the suite of allocations"},
    {SYS_mmap, "memory: the suite of allocations"},
    {SYS_mremap, "memory: the suite of allocations"},
    {SYS_munmap, "memory that is given back"},
    {SYS_mprotect, "memory that there is already"},
    {SYS_madvise, "a hint"},
    {SYS_futex, "waiting, which ends"},
    {SYS_rt_sigprocmask, "signals, of which there are none"},
    {SYS_getrandom, "random bytes, of which there are always enough"},
    {SYS_clock_gettime, "the time, which is there always"},
    {SYS_gettimeofday, "the time, which is there always"},
#ifdef SYS_time
    {SYS_time, "the time, which is there always"},
#endif
    {SYS_getpid, "asks the kernel about this process"},
    {SYS_gettid, "asks the kernel about this process"},
    {SYS_getuid, "asks the kernel about this process"},
    {SYS_geteuid, "asks the kernel about this process"},
};

bool isHarmless(std::uint64_t number) {
    return std::any_of(std::begin(harmless), std::end(harmless),
                       [&](const Harmless& one) { return one.Number == number; });
}

const Known* find(std::uint64_t number) {
    for (const Known& one : known) {
        if (one.Number == number) {
            return &one;
        }
    }
    return nullptr;
}

std::string pathOf(pid_t child, std::uint64_t descriptor) {
    const std::string link =
        "/proc/" + std::to_string(child) + "/fd/" + std::to_string(static_cast<int>(descriptor));
    char target[4096];
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

constexpr int syscallStop = SIGTRAP | 0x80;

/// Lets the child go on to its next stop; returns false when it has ended.
bool resume(pid_t child, int& status) {
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    if (waitpid(child, &status, 0) != child) {
        throw std::runtime_error("waitpid for a traced child");
    }
    return WIFSTOPPED(status);
}

#ifdef __x86_64__

void skipCall(pid_t child) {
    user_regs_struct registers = {};
    ptrace(PTRACE_GETREGS, child, nullptr, &registers);
    registers.orig_rax = ~0ULL;
    ptrace(PTRACE_SETREGS, child, nullptr, &registers);
}

void setResult(pid_t child, int error) {
    user_regs_struct registers = {};
    ptrace(PTRACE_GETREGS, child, nullptr, &registers);
    registers.rax = static_cast<unsigned long long>(-static_cast<long long>(error));
    ptrace(PTRACE_SETREGS, child, nullptr, &registers);
}

#else

void skipCall(pid_t) {}
void setResult(pid_t, int) {}

#endif

} // namespace

// What is read at once ends with a page, as the next one may not be there.
std::string textAt(pid_t child, std::uint64_t address) {
    constexpr std::uint64_t pageSize = 4096;
    std::string text;
    for (;;) {
        char bytes[pageSize];
        const std::size_t length = pageSize - address % pageSize;
        const iovec here = {bytes, length};
        // NOLINTNEXTLINE(performance-no-int-to-ptr): it is a pointer of the child's
        const iovec there = {reinterpret_cast<void*>(address), length};
        const ssize_t count = process_vm_readv(child, &here, 1, &there, 1, 0);
        if (count <= 0) {
            return text;
        }
        const char* const end = std::find(bytes, bytes + count, '\0');
        text.append(bytes, static_cast<std::size_t>(end - bytes));
        if (end != bytes + count) {
            return text;
        }
        address += static_cast<std::uint64_t>(count);
    }
}

std::string SystemCall::name() const {
    const Known* call = find(m_number);
    if (call != nullptr) {
        return call->Name;
    }
    return isHarmless(m_number) ? "" : "call " + std::to_string(m_number);
}

bool SystemCall::changesDisk() const {
    const Known* call = find(m_number);
    if (call == nullptr || !call->bChangesDisk) {
        return false;
    }
    constexpr std::uint64_t unnamed = O_TMPFILE & ~O_DIRECTORY;
    const bool bOpen = m_number == SYS_openat;
    return !bOpen || (m_arguments[2] & (O_CREAT | O_TRUNC | unnamed)) != 0;
}

std::string SystemCall::pathAt(std::size_t directory, std::size_t name) const {
    const std::string text = textAt(m_child, m_arguments[name]);
    const bool bAbsolute = !text.empty() && text.front() == '/';
    if (bAbsolute || static_cast<int>(m_arguments[directory]) == AT_FDCWD) {
        return text;
    }
    const std::string holder = pathOf(m_child, m_arguments[directory]);
    return text.empty() ? holder : holder + "/" + text;
}

std::string SystemCall::path() const {
    const Known* call = find(m_number);
    if (call == nullptr) {
        return "";
    }
    switch (call->Where) {
    case Names::Path:
        return textAt(m_child, m_arguments[0]);
    case Names::PathAt:
        return pathAt(0, 1);
    case Names::LinkAt:
        return pathAt(1, 2);
    case Names::PathSecond:
        return textAt(m_child, m_arguments[1]);
    case Names::Descriptor:
        break;
    }
    return pathOf(m_child, m_arguments[0]);
}

std::string SystemCall::target() const {
#ifdef SYS_rename
    if (m_number == SYS_rename) {
        return textAt(m_child, m_arguments[1]);
    }
#endif
    return m_number == SYS_renameat || m_number == SYS_renameat2 ? pathAt(2, 3) : "";
}

// A mark is a call that no operation makes.

void beginTraced() {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
}

void markTraced(bool) {
    syscall(SYS_getppid);
}

int trace(pid_t child, const std::function<Deed(const SystemCall&)>& decide) {
    int status = 0;
    waitpid(child, &status, 0);
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    bool bBetween = false;
    while (resume(child, status)) {
        if (WSTOPSIG(status) != syscallStop) {
            continue; // a signal, which no operation needs
        }
        __ptrace_syscall_info info = {};
        ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY) {
            continue;
        }
        if (info.entry.nr == SYS_getppid) {
            bBetween = !bBetween;
            continue;
        }
        const Deed deed =
            bBetween ? decide(SystemCall(child, info.entry.nr, &info.entry.args[0])) : Deed();
        if (deed.What == Deed::Kill) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            break;
        }
        if (deed.What == Deed::Fail) {
            // A close that fails has closed its descriptor all the same.
            if (info.entry.nr != SYS_close) {
                skipCall(child);
            }
            resume(child, status);
            setResult(child, deed.Errno);
        }
    }
    return status;
}

std::string obstacleToTracing() {
    const pid_t child = startChild([] {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
            _exit(errno);
        }
        raise(SIGSTOP);
    });
    int status = waitForEnd(child);
    if (WIFEXITED(status)) {
        return "ptrace is refused: " + std::string(std::strerror(WEXITSTATUS(status)));
    }
    resume(child, status);
    __ptrace_syscall_info info = {};
    const bool bTold = ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) > 0;
    kill(child, SIGKILL);
    waitForEnd(child);
    return bTold ? "" : "this kernel's ptrace does not tell about system calls";
}

std::string obstacleToFailing() {
#ifdef __x86_64__
    return obstacleToTracing();
#else
    return "the tracer does not know this processor's registers";
#endif
}

} // namespace tavro_test
