// Random sequences of operations, on disk and in memory at once. A sequence after which the two
// differ is cut down to its core and printed.
//
// TAVRO_MODEL_COMMANDS=100000 sets how many commands are done, about. The seed is printed;
// RC_PARAMS="seed=SEED" does the same commands again.

#include "world.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <cstdlib>
#include <iostream>
#include <string>

using namespace tavro_model;

namespace rc {

template <> struct Arbitrary<Pick> {
    static Gen<Pick> arbitrary() {
        const Gen<int> place =
            gen::weightedOneOf<int>({{9, gen::inRange(0, ordinaryPlaceCount)},
                                     {1, gen::inRange(ordinaryPlaceCount, placeCount)}});
        const Gen<Spelling> spelling = gen::weightedElement<Spelling>(
            {{8, Spelling::Plain}, {1, Spelling::ThroughParent}, {1, Spelling::EndingInSeparator}});
        return gen::build<Pick>(
            gen::set(&Pick::Place, place), gen::set(&Pick::PathSpelling, spelling),
            gen::set(&Pick::bLie, gen::weightedElement<bool>({{9, false}, {1, true}})));
    }
};

template <> struct Arbitrary<Failure> {
    static Gen<Failure> arbitrary() {
        const Gen<Call> call = gen::weightedElement<Call>({{5, Call::None},
                                                           {3, Call::Rename},
                                                           {1, Call::MakeDirectory},
                                                           {1, Call::Remove},
                                                           {2, Call::OpenRecord},
                                                           {1, Call::WriteRecord}});
        return gen::build<Failure>(gen::set(&Failure::FailingCall, call),
                                   gen::set(&Failure::When, gen::inRange(1, 4)),
                                   gen::set(&Failure::bFromThenOn));
    }
};

template <> struct Arbitrary<Command> {
    static Gen<Command> arbitrary() {
        const Gen<Verb> verb = gen::weightedElement<Verb>({{8, Verb::Make},
                                                           {2, Verb::CreateDirectory},
                                                           {5, Verb::Rename},
                                                           {3, Verb::Plan},
                                                           {3, Verb::Delete},
                                                           {6, Verb::Trash},
                                                           {6, Verb::Restore},
                                                           {4, Verb::Reapply},
                                                           {2, Verb::Prepare},
                                                           {2, Verb::MovePrepared},
                                                           {2, Verb::WriteRecords},
                                                           {1, Verb::RemoveRecords},
                                                           {1, Verb::Measure},
                                                           {2, Verb::Ask}});
        const Gen<std::vector<Pick>> selection =
            gen::mapcat(gen::weightedElement<std::size_t>({{1, 0}, {6, 1}, {4, 2}, {4, 3}}),
                        [](std::size_t size) {
                            return gen::container<std::vector<Pick>>(size, gen::arbitrary<Pick>());
                        });
        const auto rarely = [] { return gen::weightedElement<bool>({{9, false}, {1, true}}); };
        return gen::build<Command>(
            gen::set(&Command::What, verb), gen::set(&Command::Selection, selection),
            gen::set(&Command::MadeType, gen::cast<Type>(gen::inRange(0, typeCount))),
            gen::set(&Command::Text, gen::inRange(0, textCount)),
            gen::set(&Command::Base, gen::inRange(0, baseCount)),
            gen::set(&Command::Slot, gen::inRange(0, slotCount)), gen::set(&Command::bOption),
            gen::set(&Command::bHomeless, rarely()), gen::set(&Command::bOtherDevice, rarely()),
            gen::set(&Command::InjectedFailure));
    }
};

} // namespace rc

namespace {

/// Sequences are of 0 to 100 commands, 50 in the mean.
constexpr int meanLength = 50;

int wantedCommands() {
    return numberFromEnvironment("TAVRO_MODEL_COMMANDS", 10000);
}

/// As many sequences as the commands need, unless the caller has wishes of his own.
/// @return whether he has; a sequence that is done again need not show everything.
bool setUpRapidcheck() {
    const char* asked = std::getenv("RC_PARAMS");
    std::string parameters = "max_success=" + std::to_string(wantedCommands() / meanLength * 6 / 5);
    parameters += asked == nullptr ? "" : std::string(" ") + asked;
    setenv("RC_PARAMS", parameters.c_str(), 1);
    return asked != nullptr;
}

/// Agreement over nothing would show nothing.
void checkThatEverythingHappened(Tally& tally) {
    EXPECT_GE(tally.Commands, wantedCommands());
    EXPECT_GT(tally.InjectedFailures, tally.Commands / 50);
    EXPECT_GT(tally.Exceptions, 0);
    for (int i = 0; i < verbCount; ++i) {
        EXPECT_GT(tally.Successes[Verb(i)], 0) << "verb " << i;
    }
    for (const Verb verb :
         {Verb::CreateDirectory, Verb::Rename, Verb::Plan, Verb::Delete, Verb::Trash, Verb::Restore,
          Verb::Reapply, Verb::Prepare, Verb::WriteRecords}) {
        EXPECT_GT(tally.Refusals[verb], 0) << "verb " << static_cast<int>(verb);
    }
}

TEST(Model, disk_and_memory_agree_after_every_command_of_random_sequences) {
    const bool bAskedFor = setUpRapidcheck();
    Tally tally;
    const bool bHeld = rc::check("disk and memory agree after every command", [&] {
        const auto commands =
            *rc::gen::resize(2 * meanLength, rc::gen::arbitrary<std::vector<Command>>());
        const std::string differing = difference(commands, tally);
        if (!differing.empty()) {
            RC_FAIL(differing);
        }
    });
    ASSERT_TRUE(bHeld) << "the shrunk sequence is printed above";
    std::cout << tally.Commands << " commands, " << tally.InjectedFailures << " injected failures, "
              << tally.Exceptions << " exceptions\n";
    if (!bAskedFor) {
        checkThatEverythingHappened(tally);
    }
}

} // namespace
