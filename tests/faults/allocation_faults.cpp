// Each allocation fails once, in a child of its own: std::bad_alloc leaves the operation, nothing
// is leaked, and no byte of the user's is lost. Where the standard library ends the process
// instead, the place must be on the list.

#include "suites.h"

#include "child.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <exception>
#include <execinfo.h>
#include <memory>
#include <new>
#include <sys/wait.h>

namespace {

std::atomic<long> g_blocks{0};               ///< allocated and not freed
long g_untilFailure = -1;                    ///< how many more succeed; negative: all
tavro_test::Board::Notes* g_notes = nullptr; ///< where the failing one is noted

/// The allocation that is about to be made is the one to fail.
bool isTheOne() {
    if (g_untilFailure < 0 || tavro_test::isInjectorAtWork() || g_untilFailure-- > 0) {
        return false;
    }
    g_notes->bFired = true;
    g_notes->Depth = backtrace(g_notes->Frames, 64);
    return true;
}

void* allocate(std::size_t size) noexcept {
    void* block = isTheOne() ? nullptr : std::malloc(size == 0 ? 1 : size);
    g_blocks += block == nullptr ? 0 : 1;
    return block;
}

void* allocateOrThrow(std::size_t size) {
    void* block = allocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void release(void* block) noexcept {
    g_blocks -= block == nullptr ? 0 : 1;
    std::free(block);
}

} // namespace

void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* block) noexcept {
    release(block);
}
void operator delete[](void* block) noexcept {
    release(block);
}
void operator delete(void* block, std::size_t) noexcept {
    release(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    release(block);
}

namespace tavro_test {

namespace {

/// Where the standard library ends the process when memory runs out: functions that promise not
/// to throw, and allocate inside.
const std::set<std::string>& pinned() {
    static const std::set<std::string> all = {
        "std::filesystem::copy",
        "std::filesystem::directory_iterator::directory_iterator",
        "std::filesystem::directory_iterator::increment",
        "std::filesystem::recursive_directory_iterator::increment",
        "std::filesystem::recursive_directory_iterator::recursive_directory_iterator",
    };
    return all;
}

/// The outermost function of the file-system library in which the allocation failed.
std::string placeOf(const Board::Notes& notes) {
    std::string place = "outside of the file-system library";
    for (int i = 0; i < notes.Depth; ++i) {
        Dl_info info = {};
        if (dladdr(notes.Frames[i], &info) == 0 || info.dli_sname == nullptr) {
            continue;
        }
        int status = 0;
        const std::unique_ptr<char, void (*)(void*)> plain(
            abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status), std::free);
        std::string name = status == 0 ? plain.get() : "";
        const std::size_t abiTag = name.find("__cxx11::");
        name = abiTag == std::string::npos ? name : name.erase(abiTag, 9);
        if (name.rfind("std::filesystem::", 0) == 0) {
            place = name.substr(0, name.find('('));
        }
    }
    return place;
}

class AllocationFaults {
public:
    AllocationFaults(Report& report, Tally& tally, Scenario& scenario, const Reference& reference)
        : m_report(report), m_tally(tally), m_scenario(scenario), m_reference(reference) {}

    void sweep();

private:
    bool fail(long number);
    void runInChild(long number) const;
    void judgeTermination(const std::string& identifier, const Snapshot& after);

    Report& m_report;
    Tally& m_tally;
    Scenario& m_scenario;
    const Reference& m_reference;
    Board m_board;
};

void AllocationFaults::runInChild(long number) const {
    std::set_terminate([] { std::abort(); }); // without a word: it is judged by the parent
    const int descriptors = openDescriptors();
    const long blocks = g_blocks;
    {
        g_notes = &m_board.notes();
        m_board.put(m_scenario.act([&](bool bBegins) { g_untilFailure = bBegins ? number : -1; }));
    }
    m_board.notes().BlocksLeaked = g_blocks - blocks;
    m_board.notes().DescriptorsLeaked = openDescriptors() - descriptors;
}

void AllocationFaults::judgeTermination(const std::string& identifier, const Snapshot& after) {
    const std::string place = placeOf(m_board.notes());
    Run run;
    run.After = after;
    run.Result.Message = "ended by " + place;
    Verdict verdict = judgeDebris(m_scenario, m_reference.Before, after);
    verdict.Decided = verdict.Decided == Verdict::Wrong ? Verdict::Wrong : Verdict::Terminated;
    if (pinned().count(place) == 0) {
        verdict.Decided = Verdict::Wrong;
        verdict.Complaint = "the process was ended in a place that is not on the list: " + place;
    }
    m_report.add(m_tally, identifier, verdict, tell(m_reference, run));
}

/// Lets one allocation fail; returns false when the operation makes fewer.
bool AllocationFaults::fail(long number) {
    m_scenario.prepare();
    m_board.clear();
    const int status = waitForEnd(startChild([&] { runInChild(number); }));
    const std::string identifier =
        "allocations:" + m_scenario.name() + ":" + std::to_string(number);
    const Board::Notes& notes = m_board.notes();
    m_tally.Faults += notes.bFired ? 1 : 0;
    Run run;
    run.After = m_scenario.snapshot();
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT && notes.bFired) {
        judgeTermination(identifier, run.After);
        return true;
    }
    if (status != 0 || !notes.bReturned) {
        m_report.complain(identifier, "the child came to no end");
        return false;
    }
    run.Result = m_board.outcome();
    run.bMemoryFailed = notes.bFired;
    run.DescriptorsLeaked = notes.DescriptorsLeaked;
    Verdict verdict = judge(m_scenario, m_reference, run);
    if (notes.BlocksLeaked != 0) {
        verdict.Decided = Verdict::Wrong;
        verdict.Complaint = std::to_string(notes.BlocksLeaked) + " blocks are leaked";
    }
    m_report.add(m_tally, identifier, verdict, tell(m_reference, run));
    return notes.bFired;
}

void AllocationFaults::sweep() {
    long number = 0;
    while (!m_report.isOver()) {
        const std::string identifier =
            "allocations:" + m_scenario.name() + ":" + std::to_string(number);
        constexpr long enough = 100000;
        if ((m_report.wants(identifier) && !fail(number)) || number == enough) {
            break;
        }
        ++number;
    }
    m_tally.Calls += static_cast<std::size_t>(number);
}

} // namespace

void runAllocationFaults(Report& report) {
    void* warmUp[4];
    static_cast<void>(backtrace(warmUp, 4)); // its first use loads a library
    Tally& tally = report.suite("allocations");
    forEachScenario(report, tally, "allocations",
                    [&](Scenario& scenario, const Reference& reference) {
                        AllocationFaults(report, tally, scenario, reference).sweep();
                    });
}

} // namespace tavro_test
