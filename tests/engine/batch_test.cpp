// One mover for many entries or none.

#include "batch.h"

#include "trash_fixture.h"

#include <cerrno>
#include <sys/resource.h>

using namespace tavro_trash_test;

namespace {

class Batch : public testing::Test {
protected:
    fs::path at(const std::string& name) const {
        return m_sandbox / name;
    }
    fs::path file(const std::string& name) const {
        writeFile(at(name), name);
        return at(name);
    }
    TavroBatchStep step(const std::string& from, const std::string& to) const {
        return {at(from).string(), at(to).string()};
    }
    TavroBatchStep expecting(const std::string& from, const std::string& to) const {
        TavroBatchStep expected = step(from, to);
        expected.Expected = identityOf(at(from));
        return expected;
    }
    Snapshot everything() const {
        return takeSnapshot(m_sandbox.path());
    }
    TavroBatchReport run(std::vector<TavroBatchStep> steps, const TavroBatchHooks& hooks = {},
                         const TavroCallbacks& callbacks = {}) {
        m_steps = std::move(steps);
        return TavroRunBatch(m_steps, hooks, callbacks);
    }
    void runWell(std::vector<TavroBatchStep> steps, const TavroBatchHooks& hooks = {},
                 const TavroCallbacks& callbacks = {}) {
        EXPECT_EQ(TavroDescribe(run(std::move(steps), hooks, callbacks)), "");
    }
    /// The sentence of a batch that leaves everything as it was.
    std::string runInVain(std::vector<TavroBatchStep> steps, const TavroBatchHooks& hooks = {},
                          const TavroCallbacks& callbacks = {}) {
        const Snapshot before = everything();
        const TavroBatchReport report = run(std::move(steps), hooks, callbacks);
        EXPECT_TRUE(report.Failure);
        EXPECT_TRUE(report.CreatedDirectories.empty());
        EXPECT_EQ(everything(), before);
        for (const TavroBatchStep& step : m_steps) {
            EXPECT_EQ(step.Arrived.Identity.Inode, 0U) << step.From;
        }
        return TavroDescribe(report);
    }
    std::string systemTextOf(int error) const {
        return std::generic_category().message(error);
    }

    Sandbox m_sandbox;
    std::vector<TavroBatchStep> m_steps;
};

} // namespace

TEST_F(Batch, moves_everything_and_tells_what_arrived) {
    makeDirectory(at("directory"));
    const TavroIdentity one = identityOf(file("1"));
    runWell({expecting("1", "to/1"), step("directory", "moved")});
    EXPECT_EQ(readFile(at("to/1")), "1");
    EXPECT_TRUE(fs::is_directory(at("moved")));
    EXPECT_FALSE(isPresent(at("1")) || isPresent(at("directory")));
    EXPECT_EQ(m_steps[0].Arrived.Identity, one);
    EXPECT_EQ(m_steps[0].Arrived.ChangeTime, TavroNanoseconds(statusOf(at("to/1")).st_ctim));
    EXPECT_EQ(m_steps[1].Arrived.Identity, identityOf(at("moved")));
}

TEST_F(Batch, creates_missing_parents_for_the_user_alone_and_tells_them) {
    file("1");
    const ScopedUmask open(0);
    const TavroBatchReport report = run({step("1", "new/newer/1")});
    EXPECT_EQ(TavroDescribe(report), "");
    EXPECT_EQ(report.CreatedDirectories,
              (std::vector<std::string>{at("new").string(), at("new/newer").string()}));
    EXPECT_EQ(modeOf(at("new")), 0700U);
    EXPECT_EQ(modeOf(at("new/newer")), 0700U);
}

TEST_F(Batch, checks_all_before_it_moves_anything) {
    for (const char* name : {"1", "2", "other"}) {
        file(name);
    }
    fs::create_symlink("nowhere", at("dangling"));
    TavroBatchStep wrong = expecting("other", "to");
    wrong.From = at("2").string();
    const std::vector<std::pair<TavroBatchStep, std::string>> refused = {
        {step("missing", "to"), inQuotes(at("missing")) + " is missing"},
        {step("1/below", "to"), inQuotes(at("1/below")) + " is missing"},
        {step("2", "dangling"), inQuotes(at("dangling")) + " is in the way"},
        {step("2", "other"), inQuotes(at("other")) + " is in the way"},
        {wrong, inQuotes(at("2")) + " changed in the meantime and was left alone"},
    };
    for (const auto& [second, sentence] : refused) {
        EXPECT_EQ(runInVain({step("1", "moved"), second}), sentence);
    }
}

TEST_F(Batch, says_why_a_place_cannot_be_looked_at) {
    file("1");
    makeDirectory(at("locked"));
    runUnprivileged(m_sandbox.path(), [&] {
        fs::permissions(at("locked"), fs::perms(0));
        const TavroBatchReport report = run({step("1", "locked/1")});
        fs::permissions(at("locked"), fs::perms(0700));
        EXPECT_EQ(TavroDescribe(report), "Cannot look at " + inQuotes(at("locked/1")) + ": " +
                                             systemText(std::errc::permission_denied));
        EXPECT_TRUE(isPresent(at("1")));
    });
}

TEST_F(Batch, undoes_in_reverse_what_was_done_before_a_failure) {
    file("1");
    file("2/2");
    std::vector<std::string> undone;
    TavroBatchHooks hooks;
    int prepared = 0;
    hooks.Prepare = [&] {
        ++prepared;
        return TavroFailure();
    };
    hooks.Retry = [&](std::size_t) {
        return TavroFail(TavroFailureKind::CreateRecord, ENOSPC, "a record");
    };
    hooks.Undone = [&](std::size_t i) { undone.push_back(std::to_string(i)); };
    file("3");
    file("new/3");
    EXPECT_EQ(runInVain({step("1", "new/1"), step("2", "new/2"), step("3", "new/3")}, hooks),
              "Cannot create the trash record 'a record': No space left on device");
    EXPECT_EQ(undone, (std::vector<std::string>{"2", "1", "0"}));
    EXPECT_EQ(prepared, 1);
}

TEST_F(Batch, moves_nothing_when_it_cannot_be_prepared) {
    file("1");
    TavroBatchHooks hooks;
    hooks.Prepare = [] { return TavroFail(TavroFailureKind::CreateRecord, ENOSPC, "a record"); };
    EXPECT_EQ(runInVain({step("1", "new/1")}, hooks),
              "Cannot create the trash record 'a record': No space left on device");
}

TEST_F(Batch, is_undone_when_it_is_cancelled_between_any_two_moves) {
    for (const char* name : {"1", "2", "3"}) {
        file(name);
    }
    for (int time = 1; time <= 3; ++time) {
        bool bHalfWay = false;
        const auto callbacks = whenAsked(time, [&] {
            bHalfWay = isPresent(at("to/1")) == (time > 1) && isPresent(at("to/2")) == (time > 2);
            return true;
        });
        EXPECT_EQ(
            runInVain({step("1", "to/1"), step("2", "to/2"), step("3", "to/3")}, {}, callbacks),
            "Cancelled");
        EXPECT_TRUE(bHalfWay);
    }
    runWell({step("1", "to/1")}, {}, whenAsked(2, [] { return true; }));
}

TEST_F(Batch, keeps_a_created_directory_that_somebody_uses) {
    file("1");
    file("2");
    const auto callbacks = whenAsked(2, [&] {
        writeFile(at("new/newer/theirs"));
        return true;
    });
    const TavroBatchReport report =
        run({step("1", "new/newer/1"), step("2", "new/2")}, {}, callbacks);
    EXPECT_EQ(report.CreatedDirectories.size(), 2U);
    EXPECT_TRUE(isPresent(at("new/newer/theirs")) && isPresent(at("1")) && isPresent(at("2")));
    EXPECT_FALSE(isPresent(at("new/newer/1")));
}

TEST_F(Batch, moves_back_nothing_but_what_it_moved) {
    file("1");
    file("2");
    const auto callbacks = whenAsked(2, [&] {
        fs::rename(at("to/1"), at("elsewhere"));
        writeFile(at("to/1"), "theirs");
        return true;
    });
    const TavroBatchReport report = run({step("1", "to/1"), step("2", "to/2")}, {}, callbacks);
    EXPECT_EQ(report.Failure.Kind, TavroFailureKind::Cancelled);
    ASSERT_EQ(report.RollBack.size(), 1U);
    EXPECT_EQ(TavroDescribe(report).rfind("Cancelled; moving back failed: ", 0), 0U);
    EXPECT_EQ(readFile(at("to/1")), "theirs");
    EXPECT_EQ(readFile(at("elsewhere")), "1");
    EXPECT_FALSE(isPresent(at("1")));
    EXPECT_NE(m_steps[0].Arrived.Identity.Inode, 0U);
}

TEST_F(Batch, replaces_nothing_when_it_moves_back) {
    file("1");
    file("2");
    const auto callbacks = whenAsked(2, [&] {
        writeFile(at("1"), "theirs");
        return true;
    });
    const TavroBatchReport report = run({step("1", "to/1"), step("2", "to/2")}, {}, callbacks);
    EXPECT_EQ(report.RollBack.size(), 1U);
    EXPECT_EQ(readFile(at("1")), "theirs");
    EXPECT_EQ(readFile(at("to/1")), "1");
    EXPECT_TRUE(isPresent(at("2")));
}

TEST_F(Batch, replaces_nothing_that_came_after_the_check) {
    file("1");
    const auto callbacks = whenAsked(1, [&] {
        writeFile(at("to"), "theirs");
        return false;
    });
    const TavroBatchReport report = run({step("1", "to")}, {}, callbacks);
    EXPECT_EQ(report.Failure.Kind, TavroFailureKind::Taken);
    EXPECT_EQ(report.Failure.Path, at("to").string());
    EXPECT_EQ(readFile(at("to")), "theirs");
    EXPECT_EQ(readFile(at("1")), "1");
}

TEST_F(Batch, asks_for_another_name_while_the_last_one_is_taken) {
    file("1");
    file("to 0");
    file("to 1");
    int name = 0;
    std::size_t retried = 0;
    TavroBatchHooks hooks;
    hooks.Retry = [&](std::size_t i) {
        ++retried;
        m_steps[i].To = at("to " + std::to_string(++name)).string();
        return TavroFailure();
    };
    runWell({step("1", "to 0")}, hooks);
    EXPECT_EQ(readFile(at("to 2")), "1");
    EXPECT_EQ(retried, 2U);
    hooks.Retry = [&](std::size_t) {
        ++retried;
        return TavroFailure();
    };
    EXPECT_EQ(run({step("to 2", "to 0")}, hooks).Failure.Kind, TavroFailureKind::Taken);
    EXPECT_EQ(retried, 101U);
}

TEST_F(Batch, gives_back_what_took_the_name_of_an_expected_file_at_the_last_moment) {
    file("1");
    std::vector<TavroBatchStep> steps = {expecting("1", "to")};
    BeforeCall swap("renameat2", "/1", [&] {
        fs::rename(at("1"), at("kept"));
        writeFile(at("1"), "theirs");
    });
    EXPECT_EQ(TavroDescribe(run(steps)),
              inQuotes(at("1")) + " changed in the meantime and was left alone");
    EXPECT_TRUE(swap.bActed());
    EXPECT_EQ(readFile(at("1")), "theirs");
    EXPECT_EQ(readFile(at("kept")), "1");
    EXPECT_FALSE(isPresent(at("to")));
}

TEST_F(Batch, tells_where_that_is_which_cannot_be_given_back) {
    file("1");
    const CallObserver others([&](const std::string& call, const std::string& path) {
        if (call == "renameat2" && path == at("1") && !isPresent(at("kept"))) {
            fs::rename(at("1"), at("kept"));
            writeFile(at("1"), "theirs");
        } else if (call == "fstatat" && isPresent(at("to"))) {
            writeFile(at("1"), "somebody else's");
        }
    });
    const TavroBatchReport report = run({expecting("1", "to")});
    EXPECT_EQ(report.Failure.Kind, TavroFailureKind::ItemChanged);
    ASSERT_EQ(report.RollBack.size(), 1U);
    EXPECT_EQ(report.RollBack[0].Path, at("to"));
    EXPECT_EQ(report.RollBack[0].Error, std::errc::file_exists);
    EXPECT_EQ(m_steps[0].Arrived.Identity, identityOf(at("to")));
    EXPECT_EQ(readFile(at("to")), "theirs");
    EXPECT_EQ(readFile(at("1")), "somebody else's");
}

TEST_F(Batch, finds_a_path_anew_when_it_moves_directories_back) {
    file("x/f");
    file("w/g");
    file("v");
    file("u");
    TavroBatchHooks hooks;
    hooks.Retry = [](std::size_t) { return TavroFailure(); };
    const auto callbacks = whenAsked(5, [] { return true; });
    EXPECT_EQ(runInVain({step("x/f", "f"), step("x", "z"), step("w", "x"), step("v", "x/v"),
                         step("u", "last")},
                        hooks, callbacks),
              "Cancelled");
}

TEST_F(Batch, follows_no_link_that_took_the_place_of_a_directory) {
    makeDirectory(at("elsewhere"));
    std::vector<TavroBatchStep> steps;
    for (int i = 0; i < 20; ++i) { // more than are kept open
        const std::string name = std::to_string(i) + "/1";
        file(name);
        writeFile(at("elsewhere/1"), "theirs");
        steps.push_back(step(name, "to " + std::to_string(i)));
    }
    const auto callbacks = whenAsked(2, [&] {
        fs::rename(at("3"), at("moved"));
        fs::create_directory_symlink("elsewhere", at("3"));
        return false;
    });
    const TavroBatchReport report = run(steps, {}, callbacks);
    EXPECT_EQ(report.Failure.Error.value(), ESTALE) << TavroDescribe(report);
    EXPECT_TRUE(report.RollBack.empty());
    EXPECT_EQ(readFile(at("elsewhere/1")), "theirs");
    EXPECT_EQ(readFile(at("moved/1")), "3/1");
    EXPECT_EQ(readFile(at("0/1")), "0/1");
    EXPECT_FALSE(isPresent(at("to 0")));
}

TEST_F(Batch, finds_a_path_anew_after_its_directory_has_moved) {
    file("x/f");
    file("w/g");
    file("v");
    TavroBatchHooks hooks;
    hooks.Retry = [](std::size_t) { return TavroFailure(); };
    runWell({step("x/f", "f"), step("x", "z"), step("w", "x"), step("v", "x/v")}, hooks);
    EXPECT_EQ(readFile(at("x/v")), "v");
    EXPECT_EQ(readFile(at("x/g")), "w/g");
    EXPECT_TRUE(fs::is_empty(at("z")));
}

TEST_F(Batch, needs_few_descriptors_however_many_directories_there_are) {
    std::vector<TavroBatchStep> steps;
    for (int i = 0; i < 200; ++i) {
        const std::string number = std::to_string(i);
        file(number + "/f");
        steps.push_back(step(number + "/f", "to/" + number + "/f"));
    }
    runInChild([&] {
        const struct rlimit few = {64, 64};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
        runWell(steps);
    });
    EXPECT_EQ(readFile(at("to/199/f")), "199/f");
}

TEST_F(Batch, costs_a_step_the_same_however_many_there_are) {
    const auto callsFor = [&](int count) {
        std::vector<TavroBatchStep> steps;
        for (int i = 0; i < count; ++i) {
            file("from/" + std::to_string(i));
            steps.push_back(expecting("from/" + std::to_string(i), "to/" + std::to_string(i)));
        }
        makeDirectory(at("to"));
        CallCounts counts;
        runWell(steps);
        const int made = counts.all();
        fs::remove_all(at("to"));
        return made;
    };
    // Each is looked at, and its destination; renamed, and looked at again.
    const int few = callsFor(20);
    EXPECT_EQ(callsFor(40) - few, 20 * 4);
    // Of many the names at the destination are read at once.
    const int many = callsFor(100);
    EXPECT_EQ(callsFor(200) - many, 100 * 3);
}

TEST_F(Batch, counts_each_rename_as_one_item) {
    file("1");
    file("2/below");
    std::vector<TavroProgress> told;
    TavroCallbacks callbacks;
    callbacks.OnProgress = [&](const TavroProgress& progress) { told.push_back(progress); };
    runWell({step("1", "to/1"), step("2", "to/2")}, {}, callbacks);
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.back().ItemsDone, 2U);
    EXPECT_EQ(told.back().ItemCount, 2U);
    EXPECT_EQ(told.back().ByteCount, 0U);
}

// -------------------------------------------------------------------------------------------------
// Between file systems
// -------------------------------------------------------------------------------------------------

class BatchAcross : public Batch {
protected:
    void SetUp() override {
        if (!onDifferentDevices(m_far.path(), m_sandbox.path())) {
            GTEST_SKIP() << secondFileSystem << " is no other file system";
        }
    }
    TavroBatchStep goingFar(const std::string& name) const {
        TavroBatchStep far = expecting(name, name);
        far.To = (m_far / name).string();
        return far;
    }

    Sandbox m_far{secondFileSystem};
};

TEST_F(BatchAcross, copies_no_other_file_than_the_one_it_expects) {
    file("1");
    const BeforeCall swap("renameat2", "/1", [&] {
        fs::rename(at("1"), at("kept"));
        writeFile(at("1"), "theirs");
    });
    EXPECT_TRUE(run({goingFar("1")}).Failure);
    EXPECT_TRUE(swap.bActed());
    EXPECT_EQ(readFile(at("1")), "theirs");
    EXPECT_FALSE(isPresent(m_far / "1"));
}

TEST_F(BatchAcross, tells_which_file_is_now_where_it_was_copied_back) {
    file("1");
    file("2");
    const TavroIdentity old = identityOf(at("1"));
    TavroCallbacks callbacks;
    callbacks.ShouldCancel = [&] { return isPresent(m_far / "1") && !isPresent(at("1")); };
    const TavroBatchReport report = run({goingFar("1"), goingFar("2")}, {}, callbacks);
    EXPECT_EQ(report.Failure.Kind, TavroFailureKind::Cancelled);
    ASSERT_EQ(report.Renewed.size(), 1U);
    EXPECT_EQ(report.Renewed[0].Was, old);
    EXPECT_EQ(report.Renewed[0].Is, identityOf(at("1")));
    EXPECT_EQ(readFile(at("1")) + readFile(at("2")), "12");
    EXPECT_TRUE(fs::is_empty(m_far.path()));
}
