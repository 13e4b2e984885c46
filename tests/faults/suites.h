// What the suites of the fault programme share: the options, one run, and the report.

#ifndef TAVRO_TESTS_SUITES_H
#define TAVRO_TESTS_SUITES_H

#include "judge.h"
#include "remains.h"
#include "scenarios.h"

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tavro_test {

struct Options {
    bool bLong = false;
    bool bUntilFailure = false; ///< the first wrong outcome ends the programme
    std::string Only;           ///< an identifier as it was printed, or its first components
};

/// What one suite did.
struct Tally {
    std::size_t Scenarios = 0;
    std::size_t Calls = 0;   ///< enumerated in clean runs
    std::size_t Faults = 0;  ///< injected, each seen to have fired
    std::size_t Kills = 0;   ///< states in which a process was killed
    std::size_t Debris = 0;  ///< restores and reapplies tried on what was left
    std::size_t Remains = 0; ///< transfers that left something under a hidden name
    std::map<Verdict::Kind, std::size_t> Outcomes;
    std::uintmax_t BytesGivenUp = 0;
    std::uintmax_t BytesLost = 0;
};

class Report {
public:
    explicit Report(const Options& options) : m_options(options) {}

    /// Where the following counts go.
    Tally& suite(const std::string& name);

    /// The run of this identifier is wanted. What is asked for ends at a ':' or '+' of it, so that
    /// the call 1 is not the call 10 too.
    bool wants(const std::string& identifier) const;
    /// Some run whose identifier begins so is wanted.
    bool wantsSome(const std::string& beginning) const;
    /// One run alone is wanted, and is to be told in full.
    bool tellsAll() const {
        return !m_options.Only.empty();
    }
    /// Of what is wanted everything is to be run, not a choice.
    bool isThorough() const {
        return m_options.bLong || tellsAll();
    }
    const Options& options() const {
        return m_options;
    }

    /// Counts a judged run; prints one that is wrong.
    void add(Tally& tally, const std::string& identifier, const Verdict& verdict,
             const std::string& details);
    void complain(const std::string& identifier, const std::string& complaint);
    void skip(const std::string& what, const std::string& reason);

    /// Prints everything; true when nothing was wrong, each suite that ran had its runs and its
    /// faults, and the memory kept within its bounds.
    bool conclude() const;

    /// The programme should stop now.
    bool isOver() const {
        return m_options.bUntilFailure && m_wrong > 0;
    }

private:
    const Options& m_options;
    std::list<std::pair<std::string, Tally>> m_tallies; ///< in the order of the suites
    std::map<Exception, std::size_t> m_used;
    std::size_t m_wrong = 0;
    std::set<std::string> m_skipped;
};

/// The scenarios of this run, each with what it is like without faults; `body` is called for each
/// whose identifiers are wanted. The clean run is judged here and is counted.
void forEachScenario(Report& report, Tally& tally, const std::string& suite,
                     const std::function<void(Scenario&, const Reference&)>& body);

/// Why scenarios across devices cannot be had; empty when they can.
std::string obstacleToCrossing();

/// How many descriptors are open.
int openDescriptors();

/// For reading: the sentence, what failed and what is different on the disk.
std::string tell(const Reference& reference, const Run& run);

/// What errno may plausibly become by a call, the most telling first; 0 stands for a short write.
const std::vector<int>& plausibleErrnos(const std::string& call);

/// "EIO"; "short" for 0.
std::string errnoName(int error);

void runCallFaults(Report& report);
void runAllocationFaults(Report& report);
void runKills(Report& report);
void runEngineFaults(Report& report);
void runSystemCallFaults(Report& report);
void runFullDisks(Report& report);
void runRaces(Report& report);

} // namespace tavro_test

#endif
