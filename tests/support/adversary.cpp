#include "adversary.h"

#include "fault_injector.h"

#include <gtest/gtest.h>

namespace tavro_test {

AdversaryTally strikeAtEachCall(const Adversary& adversary) {
    AdversaryTally tally;
    static int begun = 0;
    for (int chosen = 1 + begun++ % adversary.Stride;; chosen += adversary.Stride) {
        adversary.Prepare();
        int made = 0;
        bool bStruck = false;
        std::string where;
        {
            const CallObserver observer([&](const std::string& call, const std::string& path) {
                const bool bCounts = !adversary.Counts || adversary.Counts(call, path);
                made += bCounts ? 1 : 0;
                if (bCounts && made == chosen) {
                    where = call + " " + path;
                    bStruck = adversary.Strike();
                }
            });
            adversary.Operate();
        }
        SCOPED_TRACE("struck at call " + std::to_string(chosen) + ": " + where);
        adversary.Judge();
        if (made < chosen || testing::Test::HasFailure()) {
            return tally;
        }
        ++tally.Runs;
        tally.Strikes += bStruck ? 1 : 0;
    }
}

} // namespace tavro_test
