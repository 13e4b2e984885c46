// What the programs that people use instead do when somebody strikes at each of their calls. It is
// printed and not judged.

#include "strikes.h"
#include "world.h"

#include "child.h"
#include "stride.h"
#include "tracer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

using Arguments = std::vector<std::string>;

struct Peer {
    const char* Name;
    std::function<Arguments(const World&)> Command;
};

const Peer peers[] = {
    {"rm -rf",
     [](const World& world) {
         return Arguments{"rm", "-rf", world.tree()};
     }},
    {"cp -a",
     [](const World& world) {
         return Arguments{"cp", "-a", world.tree(), world.dest()};
     }},
    {"mv",
     [](const World& world) {
         return Arguments{"mv", world.tree(), world.dest()};
     }},
};

[[noreturn]] void execute(const Arguments& arguments) {
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    const int quiet = open("/dev/null", O_WRONLY);
    dup2(quiet, STDERR_FILENO);
    beginTraced();
    markTraced(true);
    execvp(pointers[0], pointers.data());
    _exit(127);
}

struct PeerTally {
    int Runs = 0;
    int Strikes = 0;
    int Astray = 0;
    std::string First; ///< What the first of these did.
};

/// Runs a peer with a strike at one in five of its calls, which is enough to print what becomes of
/// it; the last run is not disturbed.
void strikeAt(const Peer& peer, const Strike& strike, World& world, PeerTally& tally) {
    for (int chosen = 1;; chosen += callStride(5)) {
        world.begin(strike.bDeep);
        int made = 0;
        bool bStruck = false;
        const pid_t child = startChild([&] { execute(peer.Command(world)); });
        const int status = trace(child, [&](const SystemCall& call) {
            const bool bCounts = world.notice(call.name(), call.path()) && seesNames(call.name());
            made += bCounts ? 1 : 0;
            bStruck = bStruck || (bCounts && made == chosen && strike.Act(world));
            return Deed();
        });
        if (made < chosen) {
            EXPECT_EQ(0, status) << "undisturbed, it is done";
            EXPECT_EQ("", world.damage());
            return;
        }
        ++tally.Runs;
        tally.Strikes += bStruck ? 1 : 0;
        const std::string damage = world.damage();
        if (!damage.empty()) {
            ++tally.Astray;
            tally.First =
                tally.First.empty() ? std::string(strike.Name) + ": " + damage : tally.First;
            return; // what was done to the victim would be told again and again
        }
    }
}

void printWhatBecomesOf(const Peer& peer, const fs::path& far) {
    PeerTally tally;
    int strikes = 0;
    for (const Strike& strike : allStrikes()) {
        if (!strike.bPipe) { // cp waits for ever there
            World world(far);
            strikeAt(peer, strike, world, tally);
            ++strikes;
        }
    }
    std::printf("%-8s %5d runs, struck in %d, led astray by %d of %d strikes. %s\n", peer.Name,
                tally.Runs, tally.Strikes, tally.Astray, strikes, tally.First.c_str());
    EXPECT_GT(tally.Strikes, 0);
}

} // namespace

TEST(Peers, what_becomes_of_them_is_printed) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "other programs are the same under sanitizers";
#endif
    const std::string obstacle = obstacleToTracing();
    if (!obstacle.empty()) {
        GTEST_SKIP() << obstacle;
    }
    runWithTwoDevices([](const fs::path& far) {
        for (const Peer& peer : peers) {
            printWhatBecomesOf(peer, far);
        }
    });
}
