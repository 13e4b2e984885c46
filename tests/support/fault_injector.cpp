#include "fault_injector.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <mutex>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tavro_test {

namespace {

struct Rule {
    Fault fault;
    int seen = 0;
    int fired = 0;
};

std::recursive_mutex g_mutex;
std::vector<Rule> g_rules;
int g_fired = 0;
CallObserver::Observer g_observer;
std::string g_otherPath;
bool g_bNumbering = false;
std::vector<NumberedFault> g_numbered;
std::vector<CountedCall> g_counted;
thread_local bool t_bInside = false;
thread_local int t_ownWork = 0;

/// Leaves errno alone: some calls tell their end from a failure by it.
std::string pathOf(int descriptor) {
    const int error = errno;
    char target[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const long length = syscall(SYS_readlinkat, AT_FDCWD, link.c_str(), target, sizeof target);
    errno = error;
    return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

/// A call that is asked about.
struct Call {
    const char* Name;
    std::string Given; ///< the path as the call was given it
    std::string Path;  ///< the same in full
    std::string Other; ///< the second path, in full
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

bool matches(Rule& rule, const Call& call) {
    const Fault& fault = rule.fault;
    const bool bPathFits = fault.bWholePath
                               ? call.Path == fault.PathContains || call.Given == fault.PathContains
                               : contains(call.Path, fault.PathContains);
    if (fault.Call != call.Name || !bPathFits || !contains(call.Other, fault.OtherContains)) {
        return false;
    }
    ++rule.seen;
    return rule.seen == fault.When || (fault.bFromThenOn && rule.seen > fault.When);
}

/// While it lives, the calls of this thread are the observer's own.
struct InsideObserver {
    InsideObserver() {
        t_bInside = true;
    }
    ~InsideObserver() {
        t_bInside = false;
    }
};

enum class Verdict { Pass, Fail, Half };

Verdict verdictOf(int error) {
    if (error == 0) {
        return Verdict::Half;
    }
    errno = error;
    return Verdict::Fail;
}

bool reaches(const NumberedFault& fault, std::size_t number) {
    if (number <= fault.Number || fault.Reach == NumberedFault::Everything) {
        return number >= fault.Number;
    }
    return fault.Reach == NumberedFault::SameCall &&
           g_counted[number].Call == g_counted[fault.Number].Call;
}

/// A call that is tried again and again would fill the memory with notes.
void endWhenEndless(std::size_t number, const char* call) {
    constexpr std::size_t enough = 100000;
    if (number == enough) {
        std::fprintf(stderr, "%s is tried without end\n", call);
        std::abort();
    }
}

/// Notes the call; what becomes of it by its number.
Verdict judgeByNumber(const Call& call) {
    const std::size_t number = g_counted.size();
    endWhenEndless(number, call.Name);
    g_counted.push_back({call.Name, call.Path});
    for (const NumberedFault& fault : g_numbered) {
        if (reaches(fault, number)) {
            g_counted[number].bFailed = true;
            g_counted[number].Errno = fault.Errno;
            return verdictOf(fault.Errno);
        }
    }
    return Verdict::Pass;
}

/// What becomes of a call; sets errno when it is to fail.
Verdict judge(const Call& call) {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    if (t_bInside) {
        return Verdict::Pass;
    }
    if (g_observer) {
        const InsideObserver inside;
        g_otherPath = call.Other;
        g_observer(call.Name, call.Path);
    }
    const Verdict byNumber = g_bNumbering ? judgeByNumber(call) : Verdict::Pass;
    if (byNumber != Verdict::Pass) {
        return byNumber;
    }
    // Every rule counts the call, the first that fits decides.
    Rule* chosen = nullptr;
    for (Rule& rule : g_rules) {
        if (matches(rule, call) && chosen == nullptr) {
            chosen = &rule;
        }
    }
    if (chosen == nullptr) {
        return Verdict::Pass;
    }
    ++g_fired;
    ++chosen->fired;
    if (g_bNumbering) {
        g_counted.back().bFailed = true;
        g_counted.back().Errno = chosen->fault.Errno;
    }
    return verdictOf(chosen->fault.Errno);
}

/// Nothing is looked up while nobody listens, so that start-up and shut-down run untouched.
bool isListening() {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    return !g_rules.empty() || g_observer || g_bNumbering;
}

/// While it lives, this thread works for the injector.
struct OwnWork {
    OwnWork() {
        ++t_ownWork;
    }
    ~OwnWork() {
        --t_ownWork;
    }
};

/// A name below an open directory as a whole path. The path by which /proc reaches an open file is
/// that file's.
std::string wholePath(int directory, const char* name) {
    constexpr const char* descriptors = "/proc/self/fd/";
    const std::string text = name == nullptr ? "" : name;
    if (text.rfind(descriptors, 0) == 0) {
        return pathOf(
            static_cast<int>(std::strtol(text.c_str() + std::strlen(descriptors), nullptr, 10)));
    }
    if (text.empty()) {
        return directory < 0 ? text : pathOf(directory);
    }
    return directory == AT_FDCWD || text.front() == '/' ? text : pathOf(directory) + "/" + text;
}

/// For a call on a name below an open directory.
Verdict judgeAt(const char* call, int directory, const char* name) {
    const OwnWork work;
    return isListening()
               ? judge({call, name == nullptr ? "" : name, wholePath(directory, name), ""})
               : Verdict::Pass;
}

Verdict judgePath(const char* call, const char* path) {
    return judgeAt(call, AT_FDCWD, path);
}

/// For a call that gives a second name.
Verdict judgeTwo(const char* call, int from, const char* name, int to, const char* newName) {
    const OwnWork work;
    return isListening() ? judge({call, name, wholePath(from, name), wholePath(to, newName)})
                         : Verdict::Pass;
}

/// For a call that creates a symbolic link.
Verdict judgeLink(const char* call, const char* target, int directory, const char* name) {
    const OwnWork work;
    return isListening() ? judge({call, name, wholePath(directory, name), target}) : Verdict::Pass;
}

Verdict judgeDescriptor(const char* call, int descriptor) {
    return judgeAt(call, descriptor, "");
}

/// For a call that copies from one open file to another.
Verdict judgeCopy(const char* call, int from, int to) {
    return judgeTwo(call, to, "", from, "");
}

/// Half of the bytes of a write, but at least one: a write of nothing would be tried for ever.
std::size_t halfOf(std::size_t count) {
    return count < 2 ? count : count / 2;
}

/// The C library's own function.
template <typename Function> Function* original(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

FaultInjector::FaultInjector(std::vector<Fault> faults) {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    g_fired = 0;
    g_rules.clear();
    for (Fault& fault : faults) {
        g_rules.push_back({std::move(fault), 0, 0});
    }
}

FaultInjector::~FaultInjector() {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    g_rules.clear();
}

int FaultInjector::fired() const {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    return g_fired;
}

int FaultInjector::fired(std::size_t rule) const {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    return g_rules.at(rule).fired;
}

bool FaultInjector::eachFired() const {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    return std::all_of(g_rules.begin(), g_rules.end(),
                       [](const Rule& rule) { return rule.fired > 0; });
}

CallObserver::CallObserver(Observer observer) {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    g_observer = std::move(observer);
}

CallObserver::~CallObserver() {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    g_observer = nullptr;
}

const std::string& otherPathOfCall() {
    return g_otherPath;
}

bool isInjectorAtWork() {
    return t_ownWork > 0;
}

NumberedFaults::NumberedFaults(std::vector<NumberedFault> faults) {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    g_numbered = std::move(faults);
    g_counted.clear();
    g_bNumbering = true;
}

NumberedFaults::~NumberedFaults() {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    g_bNumbering = false;
}

const std::vector<CountedCall>& NumberedFaults::calls() const {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    return g_counted;
}

} // namespace tavro_test

using namespace tavro_test;

// The overridden calls. Each asks for the verdict on itself and then makes the real call.

// NOLINTBEGIN: the C library's own names and signatures

/// A call that fails with `failed`.
#define TAVRO_OVERRIDE(type, name, parameters, arguments, failed, verdict)                         \
    type name parameters {                                                                         \
        static const auto real = original<type parameters>(#name);                                 \
        return (verdict) == Verdict::Pass ? real arguments : (failed);                             \
    }

/// A call on `count` bytes, which can be half made.
#define TAVRO_OVERRIDE_BYTES(name, parameters, arguments, verdict)                                 \
    ssize_t name parameters {                                                                      \
        static const auto real = original<ssize_t parameters>(#name);                              \
        const Verdict become = verdict;                                                            \
        count = become == Verdict::Half ? halfOf(count) : count;                                   \
        return become == Verdict::Fail ? -1 : real arguments;                                      \
    }

extern "C" {

// --- Opening and closing

int open(const char* path, int flags, ...) {
    static const auto real = original<int(const char*, int, ...)>("open");
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return judgePath("open", path) == Verdict::Pass ? real(path, flags, mode) : -1;
}

int openat(int directory, const char* path, int flags, ...) {
    static const auto real = original<int(int, const char*, int, ...)>("openat");
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return judgeAt("openat", directory, path) == Verdict::Pass ? real(directory, path, flags, mode)
                                                               : -1;
}

TAVRO_OVERRIDE(FILE*, fopen64, (const char* path, const char* mode), (path, mode), nullptr,
               judgePath("fopen64", path))

int close(int descriptor) {
    static const auto real = original<int(int)>("close");
    if (judgeDescriptor("close", descriptor) == Verdict::Pass) {
        return real(descriptor);
    }
    const int error = errno;
    real(descriptor);
    errno = error;
    return -1;
}

int fclose(FILE* stream) {
    static const auto real = original<int(FILE*)>("fclose");
    if (judgeDescriptor("fclose", fileno(stream)) == Verdict::Pass) {
        return real(stream);
    }
    const int error = errno;
    real(stream);
    errno = error;
    return EOF;
}

// --- Looking

TAVRO_OVERRIDE(int, stat, (const char* path, struct stat* status) noexcept, (path, status), -1,
               judgePath("stat", path))
TAVRO_OVERRIDE(int, lstat, (const char* path, struct stat* status) noexcept, (path, status), -1,
               judgePath("lstat", path))
TAVRO_OVERRIDE(int, fstat, (int descriptor, struct stat* status) noexcept, (descriptor, status), -1,
               judgeDescriptor("fstat", descriptor))
TAVRO_OVERRIDE(int, fstat64, (int descriptor, struct stat64* status) noexcept, (descriptor, status),
               -1, judgeDescriptor("fstat64", descriptor))
TAVRO_OVERRIDE(int, fstatat,
               (int directory, const char* path, struct stat* status, int flags) noexcept,
               (directory, path, status, flags), -1, judgeAt("fstatat", directory, path))
TAVRO_OVERRIDE(int, statx,
               (int directory, const char* path, int flags, unsigned mask,
                struct statx* status) noexcept,
               (directory, path, flags, mask, status), -1, judgeAt("statx", directory, path))
TAVRO_OVERRIDE(int, fstatfs, (int descriptor, struct statfs* status) noexcept, (descriptor, status),
               -1, judgeDescriptor("fstatfs", descriptor))
TAVRO_OVERRIDE(int, faccessat, (int directory, const char* path, int mode, int flags) noexcept,
               (directory, path, mode, flags), -1, judgeAt("faccessat", directory, path))
TAVRO_OVERRIDE(ssize_t, readlink, (const char* path, char* target, std::size_t size) noexcept,
               (path, target, size), -1, judgePath("readlink", path))
TAVRO_OVERRIDE(ssize_t, readlinkat,
               (int directory, const char* path, char* target, std::size_t size) noexcept,
               (directory, path, target, size), -1, judgeAt("readlinkat", directory, path))
TAVRO_OVERRIDE(char*, realpath, (const char* path, char* resolved) noexcept, (path, resolved),
               nullptr, judgePath("realpath", path))
TAVRO_OVERRIDE(char*, getcwd, (char* buffer, std::size_t size) noexcept, (buffer, size), nullptr,
               judgePath("getcwd", ""))
TAVRO_OVERRIDE(DIR*, opendir, (const char* path), (path), nullptr, judgePath("opendir", path))
TAVRO_OVERRIDE(DIR*, fdopendir, (int descriptor), (descriptor), nullptr,
               judgeDescriptor("fdopendir", descriptor))

struct dirent* readdir(DIR* directory) {
    static const auto real = original<struct dirent*(DIR*)>("readdir");
    const Verdict verdict = judgeDescriptor("readdir", dirfd(directory));
    struct dirent* const entry = verdict == Verdict::Fail ? nullptr : real(directory);
    if (verdict == Verdict::Half && entry != nullptr) {
        entry->d_type = DT_UNKNOWN;
    }
    return entry;
}

ssize_t getdents64(int descriptor, void* buffer, std::size_t size) noexcept {
    static const auto real = original<ssize_t(int, void*, std::size_t)>("getdents64");
    const Verdict verdict = judgeDescriptor("getdents64", descriptor);
    const ssize_t filled = verdict == Verdict::Fail ? -1 : real(descriptor, buffer, size);
    for (ssize_t at = 0; verdict == Verdict::Half && at < filled;) {
        auto* const entry = reinterpret_cast<struct dirent64*>(static_cast<char*>(buffer) + at);
        entry->d_type = DT_UNKNOWN;
        at += entry->d_reclen;
    }
    return filled;
}

// --- Changing names

TAVRO_OVERRIDE(int, rename, (const char* from, const char* to) noexcept, (from, to), -1,
               judgeTwo("rename", AT_FDCWD, from, AT_FDCWD, to))
TAVRO_OVERRIDE(int, renameat, (int from, const char* name, int to, const char* newName) noexcept,
               (from, name, to, newName), -1, judgeTwo("renameat", from, name, to, newName))
TAVRO_OVERRIDE(int, renameat2,
               (int from, const char* name, int to, const char* newName, unsigned flags) noexcept,
               (from, name, to, newName, flags), -1, judgeTwo("renameat2", from, name, to, newName))
TAVRO_OVERRIDE(int, linkat,
               (int from, const char* name, int to, const char* newName, int flags) noexcept,
               (from, name, to, newName, flags), -1, judgeTwo("linkat", from, name, to, newName))
TAVRO_OVERRIDE(int, remove, (const char* path) noexcept, (path), -1, judgePath("remove", path))
TAVRO_OVERRIDE(int, unlink, (const char* path) noexcept, (path), -1, judgePath("unlink", path))
TAVRO_OVERRIDE(int, unlinkat, (int directory, const char* path, int flags) noexcept,
               (directory, path, flags), -1, judgeAt("unlinkat", directory, path))
TAVRO_OVERRIDE(int, mkdir, (const char* path, mode_t mode) noexcept, (path, mode), -1,
               judgePath("mkdir", path))
TAVRO_OVERRIDE(int, mkdirat, (int directory, const char* path, mode_t mode) noexcept,
               (directory, path, mode), -1, judgeAt("mkdirat", directory, path))
TAVRO_OVERRIDE(int, mkfifoat, (int directory, const char* path, mode_t mode) noexcept,
               (directory, path, mode), -1, judgeAt("mkfifoat", directory, path))
TAVRO_OVERRIDE(int, symlink, (const char* target, const char* path) noexcept, (target, path), -1,
               judgeLink("symlink", target, AT_FDCWD, path))
TAVRO_OVERRIDE(int, symlinkat, (const char* target, int directory, const char* path) noexcept,
               (target, directory, path), -1, judgeLink("symlinkat", target, directory, path))

// --- Bytes

TAVRO_OVERRIDE_BYTES(read, (int descriptor, void* bytes, std::size_t count),
                     (descriptor, bytes, count), judgeDescriptor("read", descriptor))
TAVRO_OVERRIDE_BYTES(pread, (int descriptor, void* bytes, std::size_t count, off_t offset),
                     (descriptor, bytes, count, offset), judgeDescriptor("pread", descriptor))
TAVRO_OVERRIDE_BYTES(write, (int descriptor, const void* bytes, std::size_t count),
                     (descriptor, bytes, count), judgeDescriptor("write", descriptor))
TAVRO_OVERRIDE_BYTES(pwrite, (int descriptor, const void* bytes, std::size_t count, off_t offset),
                     (descriptor, bytes, count, offset), judgeDescriptor("pwrite", descriptor))
TAVRO_OVERRIDE_BYTES(sendfile, (int to, int from, off_t* offset, std::size_t count) noexcept,
                     (to, from, offset, count), judgeCopy("sendfile", from, to))
TAVRO_OVERRIDE_BYTES(copy_file_range,
                     (int from, off_t* fromOffset, int to, off_t* toOffset, std::size_t count,
                      unsigned flags),
                     (from, fromOffset, to, toOffset, count, flags),
                     judgeCopy("copy_file_range", from, to))

ssize_t writev(int descriptor, const struct iovec* parts, int count) {
    static const auto real = original<ssize_t(int, const struct iovec*, int)>("writev");
    static const auto realWrite = original<ssize_t(int, const void*, std::size_t)>("write");
    const Verdict verdict = judgeDescriptor("writev", descriptor);
    if (verdict == Verdict::Half) {
        return realWrite(descriptor, parts[0].iov_base, halfOf(parts[0].iov_len));
    }
    return verdict == Verdict::Fail ? -1 : real(descriptor, parts, count);
}

/// Only the sharing of blocks is asked about.
int ioctl(int descriptor, unsigned long request, ...) noexcept {
    static const auto real = original<int(int, unsigned long, ...)>("ioctl");
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request != FICLONE) {
        return real(descriptor, request, argument);
    }
    const auto from = static_cast<int>(reinterpret_cast<long>(argument));
    const Verdict verdict = judgeCopy("ioctl", from, descriptor);
    if (verdict == Verdict::Pass) {
        return real(descriptor, request, argument);
    }
    return verdict == Verdict::Half ? 0 : -1;
}

TAVRO_OVERRIDE(off_t, lseek, (int descriptor, off_t offset, int whence) noexcept,
               (descriptor, offset, whence), -1, judgeDescriptor("lseek", descriptor))
TAVRO_OVERRIDE(int, truncate, (const char* path, off_t length) noexcept, (path, length), -1,
               judgePath("truncate", path))
TAVRO_OVERRIDE(int, ftruncate, (int descriptor, off_t length) noexcept, (descriptor, length), -1,
               judgeDescriptor("ftruncate", descriptor))
TAVRO_OVERRIDE(int, fsync, (int descriptor), (descriptor), -1, judgeDescriptor("fsync", descriptor))
TAVRO_OVERRIDE(int, syncfs, (int descriptor) noexcept, (descriptor), -1,
               judgeDescriptor("syncfs", descriptor))

// --- Attributes

TAVRO_OVERRIDE(int, chmod, (const char* path, mode_t mode) noexcept, (path, mode), -1,
               judgePath("chmod", path))
TAVRO_OVERRIDE(int, fchmod, (int descriptor, mode_t mode) noexcept, (descriptor, mode), -1,
               judgeDescriptor("fchmod", descriptor))
TAVRO_OVERRIDE(int, fchmodat, (int directory, const char* path, mode_t mode, int flags) noexcept,
               (directory, path, mode, flags), -1, judgeAt("fchmodat", directory, path))
TAVRO_OVERRIDE(int, fchownat,
               (int directory, const char* path, uid_t user, gid_t group, int flags) noexcept,
               (directory, path, user, group, flags), -1, judgeAt("fchownat", directory, path))
TAVRO_OVERRIDE(int, futimens, (int descriptor, const struct timespec times[2]) noexcept,
               (descriptor, times), -1, judgeDescriptor("futimens", descriptor))
TAVRO_OVERRIDE(int, utimensat,
               (int directory, const char* path, const struct timespec times[2],
                int flags) noexcept,
               (directory, path, times, flags), -1, judgeAt("utimensat", directory, path))
TAVRO_OVERRIDE(ssize_t, listxattr, (const char* path, char* names, std::size_t size) noexcept,
               (path, names, size), -1, judgePath("listxattr", path))
TAVRO_OVERRIDE(ssize_t, flistxattr, (int descriptor, char* names, std::size_t size) noexcept,
               (descriptor, names, size), -1, judgeDescriptor("flistxattr", descriptor))
TAVRO_OVERRIDE(ssize_t, getxattr,
               (const char* path, const char* name, void* value, std::size_t size) noexcept,
               (path, name, value, size), -1, judgePath("getxattr", path))
TAVRO_OVERRIDE(ssize_t, fgetxattr,
               (int descriptor, const char* name, void* value, std::size_t size) noexcept,
               (descriptor, name, value, size), -1, judgeDescriptor("fgetxattr", descriptor))
TAVRO_OVERRIDE(int, setxattr,
               (const char* path, const char* name, const void* value, std::size_t size,
                int flags) noexcept,
               (path, name, value, size, flags), -1, judgePath("setxattr", path))
TAVRO_OVERRIDE(int, fsetxattr,
               (int descriptor, const char* name, const void* value, std::size_t size,
                int flags) noexcept,
               (descriptor, name, value, size, flags), -1, judgeDescriptor("fsetxattr", descriptor))
TAVRO_OVERRIDE(int, removexattr, (const char* path, const char* name) noexcept, (path, name), -1,
               judgePath("removexattr", path))
TAVRO_OVERRIDE(int, fremovexattr, (int descriptor, const char* name) noexcept, (descriptor, name),
               -1, judgeDescriptor("fremovexattr", descriptor))

// --- The clock

TAVRO_OVERRIDE(struct tm*, localtime_r, (const time_t* time, struct tm* fields) noexcept,
               (time, fields), nullptr, judgePath("localtime_r", ""))

} // extern "C"
// NOLINTEND
