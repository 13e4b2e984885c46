// Lets chosen file-system calls fail. The calls are overridden in the executable that links
// fault_injector.cpp, so the standard library's own calls are caught too.

#ifndef TAVRO_TESTS_FAULT_INJECTOR_H
#define TAVRO_TESTS_FAULT_INJECTOR_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tavro_test {

/// One rule for calls to fail by.
struct Fault {
    /// The name of the C function: "rename", "remove", "unlinkat", "mkdir", "open", "openat",
    /// "fopen64", "write", "writev", "sendfile", "fsync", "close", "fclose", "stat", "lstat",
    /// "fstat64", "readdir", "fdopendir", "opendir", "symlink", "readlink", "realpath", "fchmod",
    /// "fchmodat", "utimensat", "getcwd", "truncate", "read", "localtime_r".
    std::string Call;

    /// What errno becomes. 0 makes half a failure: for "write", "writev" and "sendfile", half of
    /// the bytes are written and the call reports that half; for "readdir", the entry comes without
    /// its type, as some file systems give it. For other calls it means nothing.
    int Errno = 0;

    /// Only calls whose path (the first, for calls with two; for those on a descriptor, the path it
    /// was opened by as /proc tells it; for "openat" and "unlinkat" the text they are given, often
    /// a bare name) contains this text. Empty: every call.
    std::string PathContains = "";

    /// The how-manyeth matching call fails, counted from 1.
    int When = 1;

    /// All matching calls after that one fail too.
    bool bFromThenOn = false;

    /// `PathContains` is the whole path, not a part of it.
    bool bWholePath = false;
};

/// While it lives, the calls that its rules choose fail, in every thread. One at a time.
class FaultInjector {
public:
    explicit FaultInjector(std::vector<Fault> faults);
    ~FaultInjector();
    FaultInjector(const FaultInjector&) = delete;
    FaultInjector& operator=(const FaultInjector&) = delete;

    /// How many calls were made to fail so far. A test asserts that this is not 0.
    int fired() const;

    /// How many of them the rule at this index made to fail.
    int fired(std::size_t rule) const;

    /// Every rule made at least one call fail.
    bool eachFired() const;
};

/// While it lives, `observer` is told of every overridden call (its name and its path) just before
/// it is made. What the observer itself calls is neither told nor failed.
class CallObserver {
public:
    using Observer = std::function<void(const std::string& call, const std::string& path)>;
    explicit CallObserver(Observer observer);
    ~CallObserver();
    CallObserver(const CallObserver&) = delete;
    CallObserver& operator=(const CallObserver&) = delete;
};

/// What this thread does right now, it does for the injector and not for the one who made a call.
bool isInjectorAtWork();

/// One call to fail, by its number among all overridden calls, counted from 0.
struct NumberedFault {
    enum Extent {
        Once,       ///< that call alone
        SameCall,   ///< that call and all later ones of the same name
        Everything, ///< that call and all later ones, whatever they are
    };
    std::size_t Number = 0;
    int Errno = 0; ///< as in Fault
    Extent Reach = Once;
};

/// A call that was counted.
struct CountedCall {
    static constexpr int unknown = -1;

    std::string Call;
    std::string Path; ///< as for Fault, but whole for "openat" and "unlinkat", too
    bool bFailed = false;
    int Errno = unknown; ///< what it was made to fail with
};

/// While it lives, it counts and notes every overridden call of this process, and the chosen ones
/// fail. Without faults it only notes. One at a time; the rules of a FaultInjector hold beside it.
class NumberedFaults {
public:
    explicit NumberedFaults(std::vector<NumberedFault> faults = {});
    ~NumberedFaults();
    NumberedFaults(const NumberedFaults&) = delete;
    NumberedFaults& operator=(const NumberedFaults&) = delete;

    /// The calls so far, in order. Not to be asked while other threads make calls.
    const std::vector<CountedCall>& calls() const;
};

} // namespace tavro_test

#endif
