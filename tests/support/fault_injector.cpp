#include "fault_injector.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <mutex>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>
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
    const ssize_t length =
        readlinkat(AT_FDCWD, link.c_str(), target, sizeof target); // not overridden
    errno = error;
    return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

bool matches(Rule& rule, const char* call, const std::string& path) {
    const Fault& fault = rule.fault;
    const bool bPathFits = fault.bWholePath ? path == fault.PathContains
                                            : path.find(fault.PathContains) != std::string::npos;
    if (fault.Call != call || !bPathFits) {
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
Verdict judgeByNumber(const char* call, const std::string& path) {
    const std::size_t number = g_counted.size();
    endWhenEndless(number, call);
    g_counted.push_back({call, path});
    for (const NumberedFault& fault : g_numbered) {
        if (reaches(fault, number)) {
            g_counted[number].bFailed = true;
            g_counted[number].Errno = fault.Errno;
            return verdictOf(fault.Errno);
        }
    }
    return Verdict::Pass;
}

/// What becomes of a call; sets errno when it is to fail. It is noted with the whole path.
Verdict judge(const char* call, const std::string& path, const std::string& wholePath) {
    const std::lock_guard<std::recursive_mutex> lock(g_mutex);
    if (t_bInside) {
        return Verdict::Pass;
    }
    if (g_observer) {
        const InsideObserver inside;
        g_observer(call, path);
    }
    const Verdict byNumber = g_bNumbering ? judgeByNumber(call, wholePath) : Verdict::Pass;
    if (byNumber != Verdict::Pass) {
        return byNumber;
    }
    // Every rule counts the call, the first that fits decides.
    Rule* chosen = nullptr;
    for (Rule& rule : g_rules) {
        if (matches(rule, call, path) && chosen == nullptr) {
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

Verdict judgePath(const char* call, const char* path) {
    const OwnWork work;
    const std::string text = path == nullptr ? "" : path;
    return isListening() ? judge(call, text, text) : Verdict::Pass;
}

Verdict judgeAt(const char* call, int directory, const char* path) {
    const OwnWork work;
    if (!isListening()) {
        return Verdict::Pass;
    }
    const std::string text = path;
    const bool bWhole = directory == AT_FDCWD || text.front() == '/';
    return judge(call, text, bWhole ? text : pathOf(directory) + "/" + text);
}

Verdict judgeDescriptor(const char* call, int descriptor) {
    const OwnWork work;
    const std::string path = isListening() ? pathOf(descriptor) : "";
    return isListening() ? judge(call, path, path) : Verdict::Pass;
}

/// Half of the bytes of a write, but at least one: a write of nothing would be tried for ever.
std::size_t halfOf(std::size_t count) {
    return count < 2 ? count : count / 2;
}

template <typename Function> Function* original(Function* /*like*/, const char* name) {
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

using tavro_test::halfOf;
using tavro_test::judgeAt;
using tavro_test::judgeDescriptor;
using tavro_test::judgePath;
using tavro_test::original;
using tavro_test::Verdict;

// The overridden calls. Each asks for the verdict on itself and then makes the real call.

// NOLINTBEGIN: the C library's own names and signatures
extern "C" {

int rename(const char* from, const char* to) noexcept {
    if (judgePath("rename", from) != Verdict::Pass) {
        return -1;
    }
    return original(&rename, "rename")(from, to);
}

int remove(const char* path) noexcept {
    if (judgePath("remove", path) != Verdict::Pass) {
        return -1;
    }
    return original(&remove, "remove")(path);
}

int unlinkat(int directory, const char* path, int flags) noexcept {
    if (judgeAt("unlinkat", directory, path) != Verdict::Pass) {
        return -1;
    }
    return original(&unlinkat, "unlinkat")(directory, path, flags);
}

int mkdir(const char* path, mode_t mode) noexcept {
    if (judgePath("mkdir", path) != Verdict::Pass) {
        return -1;
    }
    return original(&mkdir, "mkdir")(path, mode);
}

int open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (judgePath("open", path) != Verdict::Pass) {
        return -1;
    }
    return original(&open, "open")(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (judgeAt("openat", directory, path) != Verdict::Pass) {
        return -1;
    }
    return original(&openat, "openat")(directory, path, flags, mode);
}

FILE* fopen64(const char* path, const char* mode) {
    if (judgePath("fopen64", path) != Verdict::Pass) {
        return nullptr;
    }
    return original(&fopen64, "fopen64")(path, mode);
}

ssize_t read(int descriptor, void* bytes, std::size_t count) {
    if (judgeDescriptor("read", descriptor) != Verdict::Pass) {
        return -1;
    }
    return original(&read, "read")(descriptor, bytes, count);
}

ssize_t write(int descriptor, const void* bytes, std::size_t count) {
    const Verdict verdict = judgeDescriptor("write", descriptor);
    if (verdict == Verdict::Fail) {
        return -1;
    }
    return original(&write, "write")(descriptor, bytes,
                                     verdict == Verdict::Half ? halfOf(count) : count);
}

ssize_t writev(int descriptor, const struct iovec* parts, int count) {
    const Verdict verdict = judgeDescriptor("writev", descriptor);
    if (verdict == Verdict::Fail) {
        return -1;
    }
    if (verdict == Verdict::Half) {
        return original(&write, "write")(descriptor, parts[0].iov_base, halfOf(parts[0].iov_len));
    }
    return original(&writev, "writev")(descriptor, parts, count);
}

ssize_t sendfile(int out, int in, off_t* offset, std::size_t count) noexcept {
    const Verdict verdict = judgeDescriptor("sendfile", out);
    if (verdict == Verdict::Fail) {
        return -1;
    }
    return original(&sendfile, "sendfile")(out, in, offset,
                                           verdict == Verdict::Half ? halfOf(count) : count);
}

int fsync(int descriptor) {
    if (judgeDescriptor("fsync", descriptor) != Verdict::Pass) {
        return -1;
    }
    return original(&fsync, "fsync")(descriptor);
}

int close(int descriptor) {
    if (judgeDescriptor("close", descriptor) != Verdict::Pass) {
        const int error = errno;
        original(&close, "close")(descriptor);
        errno = error;
        return -1;
    }
    return original(&close, "close")(descriptor);
}

int fclose(FILE* stream) {
    if (judgeDescriptor("fclose", fileno(stream)) != Verdict::Pass) {
        const int error = errno;
        original(&fclose, "fclose")(stream);
        errno = error;
        return EOF;
    }
    return original(&fclose, "fclose")(stream);
}

int stat(const char* path, struct stat* status) noexcept {
    if (judgePath("stat", path) != Verdict::Pass) {
        return -1;
    }
    return original(static_cast<int (*)(const char*, struct stat*)>(&stat), "stat")(path, status);
}

int lstat(const char* path, struct stat* status) noexcept {
    if (judgePath("lstat", path) != Verdict::Pass) {
        return -1;
    }
    return original(&lstat, "lstat")(path, status);
}

int fstat64(int descriptor, struct stat64* status) noexcept {
    if (judgeDescriptor("fstat64", descriptor) != Verdict::Pass) {
        return -1;
    }
    return original(&fstat64, "fstat64")(descriptor, status);
}

struct dirent* readdir(DIR* directory) {
    const Verdict verdict = judgeDescriptor("readdir", dirfd(directory));
    if (verdict == Verdict::Fail) {
        return nullptr;
    }
    struct dirent* const entry = original(&readdir, "readdir")(directory);
    if (verdict == Verdict::Half && entry != nullptr) {
        entry->d_type = DT_UNKNOWN;
    }
    return entry;
}

DIR* opendir(const char* path) {
    if (judgePath("opendir", path) != Verdict::Pass) {
        return nullptr;
    }
    return original(&opendir, "opendir")(path);
}

DIR* fdopendir(int descriptor) {
    if (judgeDescriptor("fdopendir", descriptor) != Verdict::Pass) {
        return nullptr;
    }
    return original(&fdopendir, "fdopendir")(descriptor);
}

int symlink(const char* target, const char* path) noexcept {
    if (judgePath("symlink", path) != Verdict::Pass) {
        return -1;
    }
    return original(&symlink, "symlink")(target, path);
}

ssize_t readlink(const char* path, char* target, std::size_t size) noexcept {
    if (judgePath("readlink", path) != Verdict::Pass) {
        return -1;
    }
    return original(&readlink, "readlink")(path, target, size);
}

char* realpath(const char* path, char* resolved) noexcept {
    if (judgePath("realpath", path) != Verdict::Pass) {
        return nullptr;
    }
    return original(&realpath, "realpath")(path, resolved);
}

int fchmod(int descriptor, mode_t mode) noexcept {
    if (judgeDescriptor("fchmod", descriptor) != Verdict::Pass) {
        return -1;
    }
    return original(&fchmod, "fchmod")(descriptor, mode);
}

int fchmodat(int directory, const char* path, mode_t mode, int flags) noexcept {
    if (judgePath("fchmodat", path) != Verdict::Pass) {
        return -1;
    }
    return original(&fchmodat, "fchmodat")(directory, path, mode, flags);
}

int utimensat(int directory, const char* path, const struct timespec times[2], int flags) noexcept {
    if (judgePath("utimensat", path) != Verdict::Pass) {
        return -1;
    }
    return original(&utimensat, "utimensat")(directory, path, times, flags);
}

char* getcwd(char* buffer, std::size_t size) noexcept {
    if (judgePath("getcwd", "") != Verdict::Pass) {
        return nullptr;
    }
    return original(&getcwd, "getcwd")(buffer, size);
}

int truncate(const char* path, off_t length) noexcept {
    if (judgePath("truncate", path) != Verdict::Pass) {
        return -1;
    }
    return original(&truncate, "truncate")(path, length);
}

struct tm* localtime_r(const time_t* time, struct tm* fields) noexcept {
    if (judgePath("localtime_r", "") != Verdict::Pass) {
        return nullptr;
    }
    return original(&localtime_r, "localtime_r")(time, fields);
}

} // extern "C"
// NOLINTEND
