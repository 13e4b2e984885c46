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
    /// The name of the C function; fault_injector.cpp lists those that can be chosen.
    std::string Call;

    /// What errno becomes. 0 makes half a failure: calls that read, write or copy bytes do so with
    /// half of them; "readdir" and "getdents64" give entries without their types, as some file
    /// systems do; "ioctl" reports that blocks are shared though they are not. For other calls it
    /// means nothing.
    int Errno = 0;

    /// Only calls whose path contains this text. It is the path that a call is given; below an open
    /// directory, the directory's as /proc tells it, with the name; for calls on a descriptor that
    /// of the file; for those with two, the first of names and the written one of descriptors.
    /// Empty: every call.
    std::string PathContains = "";

    /// The how-manyeth matching call fails, counted from 1.
    int When = 1;

    /// All matching calls after that one fail too.
    bool bFromThenOn = false;

    /// `PathContains` is the whole path, or the whole name that a call is given, not a part of it.
    bool bWholePath = false;

    /// Only calls whose second path contains this text.
    std::string OtherContains = "";
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

/// While it lives, `observer` is told of every overridden call (its name and its path, as Fault has
/// them) just before it is made. What the observer itself calls is neither told nor failed.
class CallObserver {
public:
    using Observer = std::function<void(const std::string& call, const std::string& path)>;
    explicit CallObserver(Observer observer);
    ~CallObserver();
    CallObserver(const CallObserver&) = delete;
    CallObserver& operator=(const CallObserver&) = delete;
};

/// For an observer: the second path of the call that it is told of. Where a name is renamed or
/// linked to; what bytes are copied from; what a symbolic link is to hold. Empty for other calls.
const std::string& otherPathOfCall();

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
    std::string Path; ///< as for Fault
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
