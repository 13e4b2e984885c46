// The judge of the fault programme. It is given what was there before a run, what a clean run
// leaves, and what this run left, and decides by the run's own sentence what must be on the disk.
// Full disks and races have narrower judges of their own, for what only they know.
//
//   1. The bytes of every user file exist, whole, in at least one place.
//   2. False means the state before, or the row that belongs to that failure.
//   3. True means the state after, and that no rename failed but for the devices.
//   4. The sentence has one of the known shapes, and each clause is founded: a call failed that can
//      lead to it, on a path that it tells of, with the reason that it gives.
//   5. No descriptor is left open.
//   6. What lies in the trash has its record, and the reverse.
//
// What the operations give up by their contract is the closed list of exceptions.h.

#ifndef TAVRO_TESTS_JUDGE_H
#define TAVRO_TESTS_JUDGE_H

#include "exceptions.h"
#include "scenarios.h"

#include "fault_injector.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace tavro_test {

/// What one run did.
struct Run {
    Outcome Result;
    Snapshot After;
    std::vector<CountedCall> Made;   ///< all calls, where they are known
    std::vector<CountedCall> Failed; ///< the calls that were made to fail
    std::set<int> Errnos;            ///< what they were made to fail with
    bool bMemoryFailed = false;      ///< an allocation was made to fail
    int DescriptorsLeaked = 0;
};

/// What a scenario is like without faults.
struct Reference {
    Snapshot Before;
    Run Clean;
};

struct Verdict {
    enum Kind { Before, After, Row, Escaped, Terminated, Wrong };
    Kind Decided = Wrong;
    std::set<Exception> Used;
    std::uintmax_t BytesGivenUp = 0; ///< lost as `Used` says
    std::uintmax_t BytesLost = 0;    ///< lost against rule 1
    std::string Complaint;           ///< what is wrong
};

/// Judges a run that came to its end.
Verdict judge(const Scenario& scenario, const Reference& reference, const Run& run);

/// Judges what a run left that was ended in its midst: rule 1, every item whole in one of its two
/// places, and no record without its item.
Verdict judgeDebris(const Scenario& scenario, const Snapshot& before, const Snapshot& after);

/// Every file of `before` still has its bytes somewhere in `after`. Nothing else is asked.
bool bytesSurvive(const Snapshot& before, const Snapshot& after);

/// The sentence is one that the operations may say, whatever the reason in it.
bool isKnownSentence(const std::string& message);

} // namespace tavro_test

#endif
