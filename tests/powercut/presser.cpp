// Runs a command and, after every call of it that changes a file system, makes the file systems it
// is told commit what they hold: what another program's fsync, or the commit that comes by itself
// every few seconds, may do at any moment. Data that the command has not asked to be written stays
// behind.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <map>
#include <set>
#include <string>
#include <sys/ioctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

const std::set<long> changingCalls = {
#ifdef SYS_rename
    SYS_rename,    SYS_link,      SYS_symlink,  SYS_unlink,  SYS_rmdir,           SYS_mkdir,
    SYS_mknod,     SYS_creat,     SYS_open,
#endif
    SYS_renameat,
#ifdef SYS_renameat2
    SYS_renameat2,
#endif
    SYS_linkat,    SYS_symlinkat, SYS_unlinkat, SYS_mkdirat, SYS_mknodat,         SYS_openat,
    SYS_write,     SYS_writev,    SYS_pwrite64, SYS_pwritev, SYS_copy_file_range, SYS_sendfile,
    SYS_fallocate, SYS_ftruncate, SYS_truncate, SYS_ioctl};

/// An open that creates nothing changes nothing; of the others the result alone is asked.
bool changes(const __ptrace_syscall_info& entered) {
    const auto number = static_cast<long>(entered.entry.nr);
    if (changingCalls.count(number) == 0) {
        return false;
    }
    const std::uint64_t flags = number == SYS_openat ? entered.entry.args[2]
#ifdef SYS_open
                                : number == SYS_open ? entered.entry.args[1]
#endif
                                                     : O_CREAT;
    return (flags & O_CREAT) != 0;
}

/// Commits what the file system of an open neighbour holds, by touching and syncing that file. On
/// btrfs an fsync covers its own file alone; there the whole transaction is committed.
bool commit(int neighbour) {
    struct statfs status {};
    if (fstatfs(neighbour, &status) != 0) {
        return false;
    }
    if (status.f_type == BTRFS_SUPER_MAGIC) {
        std::uint64_t transaction = 0;
        return futimens(neighbour, nullptr) == 0 &&
               ioctl(neighbour, BTRFS_IOC_START_SYNC, &transaction) == 0 &&
               ioctl(neighbour, BTRFS_IOC_WAIT_SYNC, &transaction) == 0;
    }
    return futimens(neighbour, nullptr) == 0 && fsync(neighbour) == 0;
}

/// What stands on the disk now stands there because of one more call; the log of the disk says so.
void commitAll(const std::vector<int>& neighbours, int log) {
    bool bDone = true;
    for (const int neighbour : neighbours) {
        bDone = bDone && commit(neighbour);
    }
    if (!bDone || write(log, "commit", 6) != 6) {
        std::perror("powercut_presser: commit");
        std::exit(99);
    }
}

/// Follows the command to its end, through all its threads and children.
int press(pid_t command, const std::vector<int>& neighbours, int log) {
    std::map<pid_t, bool> changing;
    int result = 99;
    int status = 0;
    pid_t task = 0;
    while ((task = waitpid(-1, &status, __WALL)) > 0) {
        if (WIFEXITED(status) || WIFSIGNALED(status)) {
            if (task == command) {
                result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            continue;
        }
        int signal = WSTOPSIG(status);
        if (signal == (SIGTRAP | 0x80)) {
            signal = 0;
            __ptrace_syscall_info info{};
            ptrace(PTRACE_GET_SYSCALL_INFO, task, sizeof info, &info);
            if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
                changing[task] = changes(info);
            } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && changing[task] &&
                       info.exit.is_error == 0) {
                commitAll(neighbours, log);
            }
        } else if ((status >> 16) != 0 || signal == SIGSTOP) {
            signal = 0; // an event of tracing, or the first stop of a new thread
        }
        ptrace(PTRACE_SYSCALL, task, nullptr,
               reinterpret_cast<void*>(static_cast<std::intptr_t>(signal)));
    }
    return result;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<int> neighbours;
    const int log = argc > 1 ? static_cast<int>(std::strtol(argv[1], nullptr, 10)) : -1;
    int first = 2;
    for (; first < argc && std::strcmp(argv[first], "--") != 0; ++first) {
        neighbours.push_back(open(argv[first], O_WRONLY | O_CLOEXEC));
        if (neighbours.back() < 0) {
            std::perror(argv[first]);
            return 99;
        }
    }
    if (first >= argc || fcntl(log, F_SETFD, FD_CLOEXEC) != 0) {
        std::fprintf(
            stderr,
            "usage: powercut_presser LOG-DESCRIPTOR NEIGHBOUR... -- [COMMAND ARGUMENT...]\n");
        return 99;
    }
    if (first + 1 == argc) {
        commitAll(neighbours, log);
        return 0;
    }
    const pid_t command = fork();
    if (command == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        execvp(argv[first + 1], argv + first + 1);
        std::perror(argv[first + 1]);
        _exit(127);
    }
    int status = 0;
    if (command < 0 || waitpid(command, &status, 0) != command || !WIFSTOPPED(status)) {
        std::perror("powercut_presser");
        return 99;
    }
    ptrace(PTRACE_SETOPTIONS, command, nullptr,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
               PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC);
    ptrace(PTRACE_SYSCALL, command, nullptr, nullptr);
    return press(command, neighbours, log);
}
