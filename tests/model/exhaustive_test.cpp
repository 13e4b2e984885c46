// Every short sequence over a small universe: two directories, three names, and the four types that
// entries have. Random sequences may miss a case of three commands; these do not.
//
// TAVRO_MODEL_LENGTH=3 sets how long sequences get; 2 when it is unset.

#include "world.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <string>

using namespace tavro_model;

namespace {

int indexOf(const std::vector<std::string>& list, const std::string& text) {
    const auto found = std::find(list.begin(), list.end(), text);
    EXPECT_NE(found, list.end()) << text;
    return static_cast<int>(found - list.begin());
}

std::vector<Pick> picks(const std::vector<std::string>& names) {
    std::vector<Pick> selection;
    for (const std::string& name : names) {
        selection.push_back({indexOf(places(), name), Spelling::Plain, false});
    }
    return selection;
}

/// Something done to a selection, or to a slot.
Command command(Verb verb, const std::vector<std::string>& names, int slot = 0) {
    Command result;
    result.What = verb;
    result.Selection = picks(names);
    result.Slot = slot;
    return result;
}

Command typed(Verb verb, const std::vector<std::string>& names, const std::string& text,
              const std::string& base) {
    Command result = command(verb, names);
    result.Text = indexOf(typedTexts(), text);
    result.Base = indexOf(baseDirectories(), base);
    return result;
}

Command failing(Command result, Call call, int when) {
    result.InjectedFailure = {call, when, false};
    return result;
}

Command failingFrom(Command result, Call call, int when) {
    result.InjectedFailure = {call, when, true};
    return result;
}

Command onOtherDevice(Command result) {
    result.bOtherDevice = true;
    return result;
}

Command withOption(Command result) {
    result.bOption = true;
    return result;
}

Command withWrongFlag(Command result) {
    for (Pick& pick : result.Selection) {
        pick.bLie = true;
    }
    return result;
}

std::vector<Command> alphabet() {
    const Command trashBoth = command(Verb::Trash, {"A/x.txt", "B/x.txt"});
    const Command restore = command(Verb::Restore, {});
    const Command reapply = command(Verb::Reapply, {});
    return {
        command(Verb::Trash, {"A/x.txt"}),
        command(Verb::Trash, {"B/x.txt"}),
        command(Verb::Trash, {"A/y"}, 1),
        command(Verb::Trash, {"A"}, 1),
        command(Verb::Trash, {"A/y", "B/.p"}),
        command(Verb::Trash, {"A/x.txt", "B/y"}),
        command(Verb::Trash, {"A/x.txt", "B/x.txt", "A/y"}),
        trashBoth,
        failing(trashBoth, Call::Rename, 2),
        failing(trashBoth, Call::OpenRecord, 2),
        onOtherDevice(trashBoth),
        restore,
        command(Verb::Restore, {}, 1),
        failing(restore, Call::Rename, 2),
        failingFrom(restore, Call::Rename, 3),
        failing(restore, Call::Remove, 1),
        onOtherDevice(restore),
        reapply,
        command(Verb::Reapply, {}, 1),
        failing(reapply, Call::Rename, 2),
        command(Verb::Prepare, {"A/x.txt", "B/x.txt"}, 1),
        command(Verb::MovePrepared, {}, 1),
        command(Verb::WriteRecords, {}, 1),
        failing(command(Verb::WriteRecords, {}, 1), Call::OpenRecord, 2),
        command(Verb::RemoveRecords, {}, 1),
        command(Verb::Delete, {"A/x.txt", "A/y"}),
        withWrongFlag(command(Verb::Delete, {"A/y", "B/.p"})),
        withOption(command(Verb::Delete, {"B/.p"})),
        typed(Verb::Rename, {"A/x.txt"}, "x.txt", "ROOT/B"),
        typed(Verb::Rename, {"A/x.txt"}, "nowhere", "ROOT/B"),
        typed(Verb::Rename, {"B/.p"}, "new/deep/x.txt", "ROOT/A"),
        typed(Verb::Rename, {"A/y"}, "x.txt", "ROOT/A"),
        typed(Verb::CreateDirectory, {}, "y/inner", "ROOT/B"),
        typed(Verb::CreateDirectory, {}, "x.txt", "ROOT/A"),
        withOption(typed(Verb::Plan, {"A/x.txt", "A/y"}, "../B/", "ROOT/A")),
        command(Verb::Make, {"A/x.txt"}),
        command(Verb::Measure, {"A"}),
    };
}

int wantedLength() {
    return numberFromEnvironment("TAVRO_MODEL_LENGTH", 2);
}

/// Each test has entries of one type, beside a file of the same name as one of them.
class EverySequence : public testing::TestWithParam<Type> {
protected:
    void tryAll(std::vector<Command>& begun, int length) {
        for (const Command& next : m_alphabet) {
            begun.push_back(next);
            ++m_sequences;
            const std::string differing = difference(begun, m_tally, m_contents);
            ASSERT_EQ(differing, "");
            if (length > 1) {
                ASSERT_NO_FATAL_FAILURE(tryAll(begun, length - 1));
            }
            begun.pop_back();
        }
    }

    const std::vector<Command> m_alphabet = alphabet();
    const Contents m_contents = {{indexOf(places(), "A/x.txt"), GetParam()},
                                 {indexOf(places(), "A/y"), GetParam()},
                                 {indexOf(places(), "B/.p"), GetParam()},
                                 {indexOf(places(), "B/x.txt"), Type::File}};
    Tally m_tally;
    int m_sequences = 0;
};

TEST_P(EverySequence, leaves_disk_and_memory_the_same) {
    std::vector<Command> none;
    tryAll(none, wantedLength());
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_GT(m_sequences, 0);
    EXPECT_GT(m_tally.InjectedFailures, 0);
    for (const Verb verb : {Verb::Trash, Verb::Restore, Verb::Rename}) {
        EXPECT_GT(m_tally.Successes[verb], 0) << "verb " << static_cast<int>(verb);
        EXPECT_GT(m_tally.Refusals[verb], 0) << "verb " << static_cast<int>(verb);
    }
    std::cout << m_sequences << " sequences of at most " << wantedLength() << " commands out of "
              << m_alphabet.size() << ": " << m_tally.Commands << " commands, "
              << m_tally.InjectedFailures << " injected failures\n";
}

std::string nameOfType(const testing::TestParamInfo<Type>& info) {
    switch (info.param) {
    case Type::File:
        return "of_files";
    case Type::FullFolder:
        return "of_folders";
    case Type::LinkToFolder:
        return "of_links";
    default:
        return "of_dangling_links";
    }
}

INSTANTIATE_TEST_SUITE_P(Model, EverySequence,
                         testing::Values(Type::File, Type::FullFolder, Type::LinkToFolder,
                                         Type::DanglingLink),
                         nameOfType);

} // namespace
