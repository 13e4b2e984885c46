// Several threads use the operations at once, each on directories of its own, with one trash for
// all.

#include "sandbox.h"
#include "snapshot.h"
#include "tavroops.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

constexpr int threadCount = 8;
constexpr int roundCount = 20;

class Threads : public testing::Test {
protected:
    Threads() : m_home("HOME", (sandbox / "home").string()) {
        makeDirectory(sandbox / "home");
    }

    /// Runs `work` in every thread at the same time, each with its number.
    static void inEachThread(const std::function<void(int)>& work) {
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int number = 0; number < threadCount; ++number) {
            threads.emplace_back([&, number] {
                ++ready;
                while (ready < threadCount) {
                    std::this_thread::yield();
                }
                work(number);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    fs::path folderOf(int number) const {
        return sandbox / std::to_string(number);
    }

    /// A name that only this thread uses, for entries that go to the trash.
    static std::string nameOf(int number, const std::string& name) {
        return "thread " + std::to_string(number) + " " + name;
    }

    fs::path inFiles(const std::string& name) const {
        return sandbox / "home/.local/share/Trash/files" / name;
    }

    Sandbox sandbox;

private:
    ScopedEnvironment m_home;
};

} // namespace

TEST_F(Threads, the_trash_folders_may_be_made_by_all_at_once) {
    for (int round = 0; round < roundCount; ++round) {
        fs::remove_all(sandbox / "home/.local");
        std::vector<std::string> errors(threadCount);
        std::vector<int> results(threadCount);
        inEachThread([&](int number) {
            const auto index = static_cast<std::size_t>(number);
            const fs::path path = folderOf(number) / nameOf(number, "a.txt");
            writeFile(path, "text");
            std::vector<TavroTrashEntry> trashed;
            results[index] =
                TavroTrashEntries({{"", path.string(), false}}, trashed, errors[index]);
        });
        EXPECT_EQ(results, std::vector<int>(threadCount, 1));
        EXPECT_EQ(errors, std::vector<std::string>(threadCount));
    }
}

TEST_F(Threads, trash_restore_and_redo_do_not_disturb_each_other) {
    inEachThread([&](int number) {
        const std::string fileName = nameOf(number, "a.txt");
        const std::string treeName = nameOf(number, "tree");
        const fs::path folder = folderOf(number);
        writeFile(folder / fileName, std::to_string(number));
        writeFile(folder / "sub" / fileName, "another");
        writeFile(folder / treeName / "deep/inside.txt", std::string(1000, 'x'));
        const Snapshot before = takeSnapshot(folder);
        std::vector<TavroTrashEntry> trashed;
        std::string error = "untouched";
        ASSERT_TRUE(TavroTrashEntries({{"", (folder / fileName).string(), false},
                                       {"", (folder / "sub" / fileName).string(), false},
                                       {"", (folder / treeName).string(), true}},
                                      trashed, error))
            << error;
        for (int round = 0; round < roundCount; ++round) {
            EXPECT_EQ(takeSnapshot(folder).size(), 2U);
            EXPECT_EQ(trashed[0].TrashPath, inFiles(fileName));
            EXPECT_EQ(trashed[1].TrashPath, inFiles(nameOf(number, "a copy 1.txt")));
            EXPECT_EQ(trashed[2].TrashPath, inFiles(treeName));
            EXPECT_EQ(readFile(trashed[0].TrashPath), std::to_string(number));
            EXPECT_EQ(readFile(trashed[0].InfoPath).rfind("[Trash Info]\nPath=/", 0), 0U);
            ASSERT_TRUE(TavroRestoreTrashEntries(trashed, error)) << error;
            EXPECT_EQ(takeSnapshot(folder), before);
            ASSERT_TRUE(TavroReapplyTrashEntries(trashed, error)) << error;
        }
        EXPECT_EQ(error, "untouched");
    });
    EXPECT_EQ(takeSnapshot(inFiles("").parent_path().parent_path() / "info").size(),
              1U + 3U * threadCount);
}

TEST_F(Threads, failures_are_told_to_the_thread_they_belong_to) {
    inEachThread([&](int number) {
        const fs::path kept = folderOf(number) / nameOf(number, "kept.txt");
        const fs::path gone = folderOf(number) / nameOf(number, "gone.txt");
        writeFile(kept, "kept");
        for (int round = 0; round < roundCount; ++round) {
            std::vector<TavroTrashEntry> trashed;
            std::string error;
            EXPECT_FALSE(TavroTrashEntries({{"", kept.string(), false}, {"", gone.string(), false}},
                                           trashed, error));
            EXPECT_EQ(error, "Failed to move '" + gone.string() +
                                 "': " + systemText(std::errc::no_such_file_or_directory));
            EXPECT_TRUE(trashed.empty());
            EXPECT_EQ(readFile(kept), "kept");
        }
    });
}

TEST_F(Threads, different_operations_run_at_the_same_time) {
    const auto make = [&](const fs::path& folder, const std::string& name) {
        std::string selected;
        std::string error;
        EXPECT_TRUE(TavroCreateDirectory(name, folder, selected, error)) << error;
        EXPECT_EQ(selected, folder / name);
    };
    const auto rename = [&](const fs::path& folder, const std::string& from,
                            const std::string& to) {
        std::string selected;
        std::string error;
        EXPECT_TRUE(
            TavroRenameEntry({from, (folder / from).string(), false}, to, folder, selected, error))
            << error;
        EXPECT_EQ(selected, folder / to);
    };
    const auto plan = [&](const fs::path& folder, const std::string& name) {
        TavroTransferPlan result;
        std::string error;
        EXPECT_TRUE(TavroBuildTransferPlan({{name, (folder / name).string(), false}}, "~/target",
                                           folder, false, TavroTransferConflictPolicy::Ask, result,
                                           error))
            << error;
        EXPECT_EQ(result.Items.at(0).DestinationPath, sandbox / "home/target");
    };
    const auto prepare = [&](const fs::path& folder, int number) {
        std::vector<TavroTrashEntry> records;
        std::string error;
        const std::string name = nameOf(number, "x.txt");
        const TavroOperationEntry entry = {name, (folder / name).string(), false};
        ASSERT_TRUE(TavroPrepareTrashEntries({entry, entry}, records, error)) << error;
        EXPECT_EQ(records[0].TrashPath, inFiles(name));
        EXPECT_EQ(records[1].TrashPath, inFiles(name + " copy"));
        ASSERT_TRUE(TavroWriteTrashInfoEntries(records, error)) << error;
        EXPECT_TRUE(isPresent(records[0].InfoPath) && isPresent(records[1].InfoPath));
        TavroRemoveTrashInfoEntries(records);
        EXPECT_FALSE(isPresent(records[0].InfoPath) || isPresent(records[1].InfoPath));
    };
    const auto erase = [&](const fs::path& folder, const std::string& name, bool bUseTrash) {
        std::string error;
        EXPECT_TRUE(TavroDeleteEntries({{name, (folder / name).string(), true}}, bUseTrash, error))
            << error;
        EXPECT_FALSE(isPresent(folder / name));
    };

    inEachThread([&](int number) {
        const fs::path folder = folderOf(number);
        makeDirectory(folder);
        for (int round = 0; round < roundCount; ++round) {
            const std::string made = nameOf(number, "made");
            make(folder, made);
            writeFile(folder / made / "a.txt", std::string(100, 'x'));
            prepare(folder, number);
            rename(folder / made, "a.txt", "b.txt");
            plan(folder / made, "b.txt");
            EXPECT_EQ(TavroCalculateDirectorySize(folder, [] { return false; }), 100U);
            erase(folder, made, (round + number) % 2 == 0);
        }
    });
}
