#include "suites.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <sstream>
#include <sys/resource.h>
#include <unistd.h>

namespace tavro_test {

// -------------------------------------------------------------------------------------------------
// Plausible errors
// -------------------------------------------------------------------------------------------------

namespace {

struct Plausible {
    std::vector<const char*> Calls;
    std::vector<int> Errnos;
};

// A file system over a network or on a failing disk may give EIO to anything; the others follow
// the manual pages. An error that would say something untrue about the disk (ENOENT for what is
// there) is no fault of the machine but the work of another process, and is not here.
const std::vector<Plausible>& plausible() {
    static const std::vector<Plausible> all = {
        {{"rename"}, {EIO, EXDEV, EACCES, EPERM, ENOSPC, EROFS, EBUSY, EDQUOT, ENOMEM}},
        {{"remove", "unlinkat", "unlink", "rmdir"}, {EIO, EACCES, EPERM, EROFS, EBUSY, ENOMEM}},
        {{"mkdir"}, {EIO, EACCES, ENOSPC, EROFS, EDQUOT, EMLINK, ENOMEM}},
        {{"open", "openat"}, {EIO, EACCES, EMFILE, ENFILE, ENOMEM, ENOSPC, EROFS, EDQUOT}},
        {{"fopen64"}, {EIO, EACCES, EMFILE, ENFILE, ENOMEM, ENOSPC, EROFS, EDQUOT}},
        {{"opendir", "fdopendir"}, {EIO, EACCES, EMFILE, ENFILE, ENOMEM}},
        {{"readdir", "getdents64"}, {EIO, EOVERFLOW}},
        {{"stat", "lstat", "fstat64", "newfstatat", "statx"},
         {EIO, EACCES, ELOOP, ENAMETOOLONG, ENOMEM}},
        {{"read"}, {EIO, EINTR}},
        {{"write", "writev"}, {ENOSPC, 0, EIO, EDQUOT, EFBIG, EINTR}},
        {{"sendfile"}, {0, EINVAL, ENOSPC, EIO, ENOSYS, EDQUOT, ENOMEM}},
        {{"close", "fclose"}, {EIO, ENOSPC, EDQUOT, EINTR}},
        {{"symlink"}, {EIO, EACCES, ENOSPC, EDQUOT, EROFS, EPERM}},
        {{"readlink", "realpath"}, {EIO, EACCES, ELOOP, ENAMETOOLONG, ENOMEM}},
        {{"fchmod", "fchmodat", "utimensat", "truncate"}, {EIO, EPERM, EROFS}},
        {{"getcwd"}, {EACCES, ENOENT}},
        {{"lseek"}, {EIO}},
        {{"fstatfs"}, {EIO, ENOSYS}},
        {{"fsync"}, {EIO, ENOSPC, EDQUOT}},
        {{"access"}, {EIO, EACCES, EROFS}},
        {{"copy_file_range"}, {EIO, ENOSPC, EXDEV, ENOSYS}},
        {{"ioctl"}, {EOPNOTSUPP, EIO, ENOSPC}},
        {{"chmod", "chown"}, {EIO, EPERM, EROFS}},
        {{"link", "mknod"}, {EIO, EACCES, ENOSPC}},
        {{"listxattr", "getxattr", "setxattr", "removexattr"}, {EIO, EOPNOTSUPP, ENOSPC}},
        {{"localtime_r"}, {EOVERFLOW}},
    };
    return all;
}

} // namespace

const std::vector<int>& plausibleErrnos(const std::string& call) {
    static const std::vector<int> none;
    for (const Plausible& one : plausible()) {
        for (const std::string name : one.Calls) {
            if (name == call) {
                return one.Errnos;
            }
        }
    }
    return none;
}

std::string errnoName(int error) {
    return error == 0 ? "short" : strerrorname_np(error);
}

// -------------------------------------------------------------------------------------------------
// Runs
// -------------------------------------------------------------------------------------------------

int openDescriptors() {
    DIR* directory = opendir("/proc/self/fd");
    int count = 0;
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count;
}

std::string tell(const Reference& reference, const Run& run) {
    static const char* const endings[] = {"true", "false", "a filesystem_error", "bad_alloc"};
    std::ostringstream text;
    text << "  ended with " << endings[run.Result.Ended] << ", \"" << run.Result.Message << "\"\n";
    for (std::size_t i = 0; i < run.Failed.size() && i < 10; ++i) {
        text << "  failed: " << run.Failed[i].Call << " " << run.Failed[i].Path << "\n";
    }
    return text.str() + difference(reference.Before, run.After);
}

std::string obstacleToCrossing() {
    const std::filesystem::path first = std::filesystem::temp_directory_path();
    const bool bTwoDevices = std::filesystem::is_directory(secondFileSystem) &&
                             onDifferentDevices(first, secondFileSystem);
    return bTwoDevices ? "" : first.string() + " and " + secondFileSystem + " are not two devices";
}

namespace {

/// What the scenario is like without faults; false when that is wrong already.
bool runClean(Report& report, Tally& tally, const std::string& identifier, const Scenario& scenario,
              Reference& reference) {
    ++tally.Scenarios;
    reference.Before = scenario.snapshot();
    reference.Clean.Result = scenario.act();
    reference.Clean.After = scenario.snapshot();
    const Verdict verdict = judge(scenario, reference, reference.Clean);
    report.add(tally, identifier, verdict, tell(reference, reference.Clean));
    const bool bTrue = reference.Clean.Result.Ended == Outcome::True;
    if (bTrue == scenario.isHindered()) {
        report.complain(identifier, "the clean run does not end as it should\n" +
                                        tell(reference, reference.Clean));
    }
    return bTrue != scenario.isHindered();
}

} // namespace

void forEachScenario(Report& report, Tally& tally, const std::string& suite,
                     const std::function<void(Scenario&, const Reference&)>& body) {
    const std::string obstacle = obstacleToCrossing();
    for (const Chosen& chosen : allScenarios()) {
        const std::string beginning = suite + ":" + chosen.name() + ":";
        const bool bPart = chosen.bShort || report.isThorough();
        if (!bPart || !report.wantsSome(beginning) || report.isOver()) {
            continue;
        }
        if (chosen.crossesDevices() && !obstacle.empty()) {
            report.skip(suite + " across devices", obstacle);
            continue;
        }
        const std::unique_ptr<Scenario> scenario = chosen.make();
        Reference reference;
        if (!runClean(report, tally, beginning + "clean", *scenario, reference)) {
            continue;
        }
        const std::size_t earlier = tally.Faults;
        body(*scenario, reference);
        // A kill needs a call that changes the disk, which not every operation makes.
        if (tally.Faults == earlier && suite != "kills" && !report.isOver()) {
            report.complain(beginning, "no fault fired");
        }
    }
}

// -------------------------------------------------------------------------------------------------
// The report
// -------------------------------------------------------------------------------------------------

Tally& Report::suite(const std::string& name) {
    for (auto& [suite, tally] : m_tallies) {
        if (suite == name) {
            return tally;
        }
    }
    return m_tallies.emplace_back(name, Tally()).second;
}

bool Report::wants(const std::string& identifier) const {
    const std::string& only = m_options.Only;
    if (only.empty() || identifier.rfind(only, 0) != 0) {
        return only.empty();
    }
    // A component is meant as a whole: "1" is not the beginning of "10".
    const bool bWhole =
        only.back() == ':' || only.back() == '+' || identifier.size() == only.size();
    return bWhole || identifier[only.size()] == ':' || identifier[only.size()] == '+';
}

bool Report::wantsSome(const std::string& beginning) const {
    return wants(beginning) || m_options.Only.rfind(beginning, 0) == 0;
}

void Report::add(Tally& tally, const std::string& identifier, const Verdict& verdict,
                 const std::string& details) {
    ++tally.Outcomes[verdict.Decided];
    tally.BytesGivenUp += verdict.BytesGivenUp;
    tally.BytesLost += verdict.BytesLost;
    for (const Exception one : verdict.Used) {
        ++m_used[one];
    }
    if (verdict.Decided == Verdict::Wrong) {
        complain(identifier, verdict.Complaint + "\n" + details);
    } else if (tellsAll() && wants(identifier)) {
        std::printf("%s\n", identifier.c_str());
        for (const Exception one : verdict.Used) {
            std::printf("  %s\n", describe(one).c_str());
        }
        std::printf("%s", details.c_str());
    }
}

void Report::complain(const std::string& identifier, const std::string& complaint) {
    ++m_wrong;
    constexpr std::size_t shown = 20;
    const std::string told =
        m_wrong <= shown ? complaint : complaint.substr(0, complaint.find('\n'));
    std::printf("WRONG %s\n  %s\n", identifier.c_str(), told.c_str());
}

void Report::skip(const std::string& what, const std::string& reason) {
    m_skipped.insert(what + ": " + reason);
}

namespace {

std::size_t countOf(const Tally& tally, Verdict::Kind kind) {
    const auto found = tally.Outcomes.find(kind);
    return found == tally.Outcomes.end() ? 0 : found->second;
}

void add(const Tally& tally, Tally& sum) {
    sum.Scenarios += tally.Scenarios;
    sum.Calls += tally.Calls;
    sum.Faults += tally.Faults;
    sum.Kills += tally.Kills;
    sum.Debris += tally.Debris;
    sum.Remains += tally.Remains;
    for (const auto& [kind, count] : tally.Outcomes) {
        sum.Outcomes[kind] += count;
    }
    sum.BytesGivenUp += tally.BytesGivenUp;
    sum.BytesLost += tally.BytesLost;
}

void printRow(const std::string& name, const Tally& tally) {
    std::printf("%-13s%10zu%8zu%9zu%7zu%7zu |", name.c_str(), tally.Scenarios, tally.Calls,
                tally.Faults, tally.Kills, tally.Debris);
    std::printf("%8zu%8zu%8zu%10zu%11zu%6zu |", countOf(tally, Verdict::Before),
                countOf(tally, Verdict::After), countOf(tally, Verdict::Row),
                countOf(tally, Verdict::Escaped), countOf(tally, Verdict::Terminated),
                countOf(tally, Verdict::Wrong));
    std::printf("%10ju%5ju\n", tally.BytesGivenUp, tally.BytesLost);
}

/// At least one fault was injected, and one run came to its end.
bool didSomething(const Tally& tally) {
    const std::size_t ended = countOf(tally, Verdict::Before) + countOf(tally, Verdict::After) +
                              countOf(tally, Verdict::Row);
    return tally.Scenarios > 0 && tally.Faults + tally.Kills > 0 && ended > 0;
}

/// The most memory that this process and the largest of its children had, in megabytes.
long peakMemory() {
    rusage own = {};
    rusage children = {};
    getrusage(RUSAGE_SELF, &own);
    getrusage(RUSAGE_CHILDREN, &children);
    return (own.ru_maxrss + children.ru_maxrss) / 1024;
}

} // namespace

bool Report::conclude() const {
    std::printf("%-13s%10s%8s%9s%7s%7s |%8s%8s%8s%10s%11s%6s |%10s%5s\n", "suite", "scenarios",
                "calls", "faults", "kills", "debris", "before", "after", "row", "bad_alloc",
                "terminated", "wrong", "given up", "lost");
    Tally sum;
    bool bGood = m_wrong == 0;
    for (const auto& [name, tally] : m_tallies) {
        printRow(name, tally);
        tavro_test::add(tally, sum);
        if (!didSomething(tally)) {
            std::printf("WRONG %s: no fault fired, or no run came to its end\n", name.c_str());
            bGood = false;
        }
    }
    printRow("all", sum);
    if (m_tallies.empty()) {
        std::printf("WRONG: no suite ran\n");
        bGood = false;
    }
    std::printf("lost bytes: %ju\n", sum.BytesLost);
    std::printf("runs of transfers that left a hidden entry: %zu\n\n", sum.Remains);
    std::printf("Rows that give something up, and how often each was seen:\n");
    for (const auto& [exception, count] : m_used) {
        std::printf("%8zu  %s\n", count, describe(exception).c_str());
    }
    for (const std::string& skipped : m_skipped) {
        std::printf("skipped: %s\n", skipped.c_str());
    }
    constexpr long enoughMemory = 1000;
    const long memory = peakMemory();
    std::printf("memory: %ld MB at the most\n", memory);
    if (memory > enoughMemory) {
        std::printf("WRONG memory: more than %ld MB\n", enoughMemory);
        bGood = false;
    }
    return bGood;
}

} // namespace tavro_test
