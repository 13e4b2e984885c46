// Each call to the file system fails with each plausible error: alone, with all later calls of its
// name, and with everything after it.
//
// Then pairs. A first fault after which the operation went on as if nothing had happened leads
// nowhere new; every other one, of the two most telling errors of each call, is followed by a
// second fault at each call that came after it, those of the roll-back among them.

#include "suites.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace tavro_test {

namespace {

using Faults = std::vector<NumberedFault>;

std::string nameOf(const NumberedFault& fault) {
    static const char* const reaches[] = {"once", "same-call", "everything"};
    return std::to_string(fault.Number) + ":" + errnoName(fault.Errno) + ":" + reaches[fault.Reach];
}

/// "calls:trash/batch:12:EIO:once+15:EACCES:once".
std::string nameOf(const Scenario& scenario, const Faults& faults) {
    std::string name = "calls:" + scenario.name() + ":" + nameOf(faults[0]);
    return faults.size() == 1 ? name : name + "+" + nameOf(faults[1]);
}

bool isSame(const CountedCall& a, const CountedCall& b) {
    return a.Call == b.Call && a.Path == b.Path;
}

/// From call `number` on, `then` went on as `calls` did.
bool isTailOf(const std::vector<CountedCall>& then, const std::vector<CountedCall>& calls,
              std::size_t number) {
    const auto from = static_cast<std::ptrdiff_t>(number);
    return std::equal(then.begin() + from, then.end(), calls.begin() + from, calls.end(), isSame);
}

class CallFaults {
public:
    CallFaults(Report& report, Tally& tally, Scenario& scenario, const Reference& reference)
        : m_report(report), m_tally(tally), m_scenario(scenario), m_reference(reference) {}

    void sweep();

private:
    std::vector<CountedCall> run(const Faults& faults);
    void failAt(const std::vector<CountedCall>& calls, std::size_t number);
    void failFromThenOn(const NumberedFault& fault);
    void failAgain(const NumberedFault& first, const std::vector<CountedCall>& then);
    bool wantsPairs(const NumberedFault& first) const;

    Report& m_report;
    Tally& m_tally;
    Scenario& m_scenario;
    const Reference& m_reference;
    bool m_bAsBefore = false; ///< The last run left everything as it was.
};

/// Runs the scenario with these faults and has it judged; returns the calls that it made.
std::vector<CountedCall> CallFaults::run(const Faults& faults) {
    if (!m_bAsBefore) {
        m_scenario.prepare();
    }
    const int descriptors = openDescriptors();
    Run run;
    std::vector<CountedCall> calls;
    {
        const NumberedFaults injector(faults);
        run.Result = m_scenario.act();
        calls = injector.calls();
    }
    run.DescriptorsLeaked = openDescriptors() - descriptors;
    run.After = m_scenario.snapshot();
    m_bAsBefore = run.After == m_reference.Before;
    run.Made = calls;
    std::copy_if(calls.begin(), calls.end(), std::back_inserter(run.Failed),
                 [](const CountedCall& call) { return call.bFailed; });
    for (const NumberedFault& fault : faults) {
        run.Errnos.insert(fault.Errno);
    }
    if (faults.empty()) {
        return calls;
    }
    const std::string identifier = nameOf(m_scenario, faults);
    for (const NumberedFault& fault : faults) {
        if (fault.Number >= calls.size() || !calls[fault.Number].bFailed) {
            m_report.complain(identifier, "a fault did not fire");
        }
    }
    ++m_tally.Faults;
    m_report.add(m_tally, identifier, judge(m_scenario, m_reference, run), tell(m_reference, run));
    return calls;
}

void CallFaults::failAt(const std::vector<CountedCall>& calls, std::size_t number) {
    const std::vector<int>& errnos = plausibleErrnos(calls[number].Call);
    if (errnos.empty()) {
        m_report.complain("calls:" + m_scenario.name() + ":" + std::to_string(number),
                          "no plausible error is known for " + calls[number].Call);
    }
    constexpr std::size_t telling = 2;
    const std::size_t tried = m_report.isThorough() ? errnos.size() : telling;
    for (std::size_t i = 0; i < errnos.size() && i < tried; ++i) {
        const NumberedFault first = {number, errnos[i], NumberedFault::Once};
        if (m_report.wantsSome(nameOf(m_scenario, {first}))) {
            const std::vector<CountedCall> then = run({first});
            const bool bFollowed = i == 0 || (i < telling && m_report.isThorough());
            if (bFollowed && wantsPairs(first) && !isTailOf(then, calls, number + 1)) {
                failAgain(first, then);
            }
        }
        // An interrupted call is tried again, and no signal comes for ever.
        if (errnos[i] != EINTR) {
            failFromThenOn({number, errnos[i], NumberedFault::SameCall});
        }
    }
    failFromThenOn({number, EIO, NumberedFault::Everything});
}

void CallFaults::failFromThenOn(const NumberedFault& fault) {
    if (m_report.wants(nameOf(m_scenario, {fault}))) {
        run({fault});
    }
}

/// `then` are the calls that were made after the first fault.
void CallFaults::failAgain(const NumberedFault& first, const std::vector<CountedCall>& then) {
    for (std::size_t number = first.Number + 1; number < then.size(); ++number) {
        const std::vector<int>& errnos = plausibleErrnos(then[number].Call);
        const Faults faults = {first, {number, errnos.empty() ? EIO : errnos.front()}};
        if (m_report.wants(nameOf(m_scenario, faults)) && !m_report.isOver()) {
            run(faults);
        }
    }
}

bool CallFaults::wantsPairs(const NumberedFault& first) const {
    if (m_report.tellsAll()) {
        return m_report.options().Only != nameOf(m_scenario, {first});
    }
    const std::string name = m_scenario.name();
    const bool bShort = name == "trash/size-limit" || name == "trash/blocked-record";
    // A delete to the trash is a trash operation whose list is dropped.
    const bool bLong = m_scenario.operation() != Operation::DeleteToTrash;
    return bShort || (m_report.options().bLong && bLong);
}

void CallFaults::sweep() {
    const std::vector<CountedCall> calls = run({});
    m_tally.Calls += calls.size();
    for (std::size_t number = 0; number < calls.size() && !m_report.isOver(); ++number) {
        failAt(calls, number);
    }
}

} // namespace

void runCallFaults(Report& report) {
    Tally& tally = report.suite("calls");
    forEachScenario(report, tally, "calls", [&](Scenario& scenario, const Reference& reference) {
        CallFaults(report, tally, scenario, reference).sweep();
    });
}

} // namespace tavro_test
