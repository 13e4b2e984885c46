// Somebody who changes the world at a chosen call, made deterministic.

#ifndef TAVRO_TESTS_ADVERSARY_H
#define TAVRO_TESTS_ADVERSARY_H

#include <functional>
#include <string>

namespace tavro_test {

/// One operation, and what somebody else does meanwhile.
struct Adversary {
    std::function<void()> Prepare; ///< Makes the world as it is at the beginning of a run.
    std::function<void()> Operate;
    std::function<bool()>
        Strike;                  ///< Changes the world once; false when there is nothing to change.
    std::function<void()> Judge; ///< After each run.

    int Stride = 1; ///< How far it is from one call to the next.

    /// Which calls are counted; empty: all.
    std::function<bool(const std::string& call, const std::string& path)> Counts = {};
};

/// What became of all the runs.
struct AdversaryTally {
    int Runs = 0;    ///< With a call to strike at; the last run had none any more.
    int Strikes = 0; ///< How many of them were struck in fact.
};

/// Runs the operation again and again. In run k, `Strike` is called just before the operation's
/// k-th call; with a stride, k grows by that, and begins elsewhere each time that this is called.
/// Ends with the run that had fewer calls than that, which nobody disturbed, or after a failed
/// assertion.
AdversaryTally strikeAtEachCall(const Adversary& adversary);

} // namespace tavro_test

#endif
