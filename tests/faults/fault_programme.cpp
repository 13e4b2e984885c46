// Makes every call fail, every allocation, and every moment the last one, and has each outcome
// judged. `fault_programme --help` lists the options.

#include "suites.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <optional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

using namespace tavro_test;

namespace {

/// A file system in memory that this process alone sees, in the place of the temporary directory.
/// Without root, or where TMPDIR is set, the temporary directory is used as it is.
class PrivateDevice {
public:
    PrivateDevice() {
        const char* const folder = m_folder.path().c_str();
        m_bMounted = isRoot() && std::getenv("TMPDIR") == nullptr && unshare(CLONE_NEWNS) == 0 &&
                     mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     mount("tavro-test", folder, "tmpfs", 0, nullptr) == 0;
        if (m_bMounted) {
            setenv("TMPDIR", folder, 1);
        }
    }
    ~PrivateDevice() {
        if (m_bMounted) {
            umount2(m_folder.path().c_str(), MNT_DETACH);
        }
    }
    PrivateDevice(const PrivateDevice&) = delete;
    PrivateDevice& operator=(const PrivateDevice&) = delete;

private:
    Sandbox m_folder;
    bool m_bMounted;
};

struct Suite {
    const char* Name;
    void (*Run)(Report&);
};

constexpr Suite suites[] = {
    {"calls", runCallFaults},
    {"system-calls", runSystemCallFaults},
    {"allocations", runAllocationFaults},
    {"kills", runKills},
    {"engine", runEngineFaults},
    {"full-disks", runFullDisks},
    {"races", runRaces},
};

void printUsage() {
    std::puts("usage: fault_programme [--short | --long] [--suite NAME]… [--only IDENTIFIER]\n"
              "                       [--until-failure]\n\n"
              "  --short            a choice of scenarios and errors (the default)\n"
              "  --long             everything\n"
              "  --suite NAME       one of the suites below; all without it\n"
              "  --only IDENTIFIER  runs what was printed as wrong again, and tells of it; the\n"
              "                     beginning of an identifier, to a ':' or '+', runs all that\n"
              "                     begin so\n"
              "  --until-failure    stops at the first wrong outcome\n\n"
              "The suites:");
    for (const Suite& suite : suites) {
        std::printf("  %s\n", suite.Name);
    }
}

bool isSuite(const std::string& name) {
    return std::any_of(std::begin(suites), std::end(suites),
                       [&](const Suite& suite) { return suite.Name == name; });
}

/// What the command line asks for.
struct Request {
    Options How;
    std::set<std::string> Suites; ///< empty: all

    bool takes(const Suite& suite) const {
        if (!How.Only.empty()) {
            return (How.Only + ":").rfind(std::string(suite.Name) + ":", 0) == 0;
        }
        return Suites.empty() || Suites.count(suite.Name) == 1;
    }
};

/// The request; nothing when it cannot be understood.
std::optional<Request> parse(const std::vector<std::string>& arguments) {
    Request request;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const std::string value = i + 1 < arguments.size() ? arguments[i + 1] : "";
        if (argument == "--short" || argument == "--long") {
            request.How.bLong = argument == "--long";
        } else if (argument == "--until-failure") {
            request.How.bUntilFailure = true;
        } else if (argument == "--suite" && isSuite(value)) {
            request.Suites.insert(value);
            ++i;
        } else if (argument == "--only" && isSuite(value.substr(0, value.find(':')))) {
            request.How.Only = value;
            ++i;
        } else {
            return std::nullopt;
        }
    }
    return request;
}

/// Runs what is asked for; true when nothing was wrong.
bool run(const Request& request) {
    const PrivateDevice device;
    Report report(request.How);
    for (const Suite& suite : suites) {
        if (request.takes(suite) && !report.isOver()) {
            suite.Run(report);
        }
    }
    return report.conclude();
}

} // namespace

int main(int count, char** arguments) {
    const std::optional<Request> request = parse({arguments + 1, arguments + count});
    if (!request) {
        printUsage();
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    umask(022);
    try {
        return run(*request) ? 0 : 1;
    } catch (const std::exception& error) {
        std::printf("The programme cannot go on: %s\n", error.what());
        return 3;
    }
}
