// What a trash remembers of the sizes of directories, for other programs.

#include "directory_sizes.h"

#include "choice.h"
#include "trash_contents.h"
#include "trash_fixture.h"

#include <cerrno>

using namespace tavro_trash_test;

namespace {

class DirectorySizes : public HomeWithTrash {
protected:
    fs::path cache() const {
        return root() / "directorysizes";
    }

    /// "SIZE TIME NAME" of an item, by its blocks and its record.
    std::string lineOf(const std::string& name, const std::string& encoded) const {
        std::int64_t blocks = statusOf(item(name)).st_blocks;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(item(name))) {
            blocks += statusOf(entry.path()).st_blocks;
        }
        return std::to_string(blocks * 512) + " " +
               std::to_string(statusOf(record(name)).st_mtim.tv_sec) + " " + encoded + "\n";
    }

    static std::vector<TavroTrashItem> measured() {
        std::vector<TavroTrashItem> items;
        EXPECT_FALSE(TavroListTrash({}, items));
        EXPECT_FALSE(TavroMeasureItems(items, {}, true));
        return items;
    }

    /// Two directories and a file in the trash, measured.
    void fill() {
        doc("a dir/sub/1", std::string(10000, 'x'));
        doc("b%/2", "12");
        trash({docs() / "a dir", docs() / "b%", doc("c.txt")});
        ASSERT_FALSE(isPresent(cache())) << "trashing measures nothing";
        measured();
        ASSERT_EQ(readFile(cache()), lineOf("a dir", "a%20dir") + lineOf("b%", "b%25"));
    }
};

} // namespace

TEST_F(DirectorySizes, are_remembered_when_directories_are_measured) {
    fill();
    EXPECT_EQ(modeOf(cache()), 0600U);
    const TavroIdentity first = identityOf(cache());
    EXPECT_EQ(measured()[0].ByteCount + measured()[1].ByteCount + measured()[2].ByteCount, 10007U);
    EXPECT_EQ(identityOf(cache()), first) << "what is right is not written again";
    writeFile(item("b%") / "3", std::string(70000, 'x'));
    measured();
    EXPECT_EQ(readFile(cache()), lineOf("a dir", "a%20dir") + lineOf("b%", "b%25"));
}

TEST_F(DirectorySizes, count_what_has_several_names_once) {
    doc("d/1", std::string(50000, 'x'));
    const fs::path second = docs() / "d/2";
    fs::create_hard_link(docs() / "d/1", second);
    trash({docs() / "d"});
    measured();
    fs::remove(item("d") / "2");
    EXPECT_EQ(readFile(cache()), lineOf("d", "d"));
}

TEST_F(DirectorySizes, of_what_is_restored_or_removed_are_forgotten) {
    fill();
    const std::vector<TavroTrashItem> items = measured();
    const auto named = [&](const std::string& name) {
        for (const TavroTrashItem& found : items) {
            if (found.Name == name) {
                return found;
            }
        }
        return TavroTrashItem();
    };
    const TavroIdentity first = identityOf(cache());
    restore({named("c.txt").Trashed()});
    EXPECT_EQ(identityOf(cache()), first) << "a file has nothing to do with it";
    restore({named("a dir").Trashed()});
    EXPECT_EQ(readFile(cache()), lineOf("b%", "b%25"));
    EXPECT_FALSE(TavroRemoveFromTrash({named("b%")}, {}));
    EXPECT_FALSE(isPresent(cache()));
}

TEST_F(DirectorySizes, that_make_no_sense_are_dropped_and_others_of_what_is_there_kept) {
    doc("d/1", "x");
    doc("e/1", "x");
    trash({docs() / "d", docs() / "e", doc("file")});
    std::string nonsense =
        "\n \n1\n1 2\n1 2 \n 1 2 d\n-1 2 d\n1 x d\n99999999999999999999 1 d\n1 2 ..\n"
        "1 2 %2E\n1 2 a%2Fb\n1 2 /d\n1 2 d%00\n1 2 file\n1 2 gone\n1  2 d\n";
    nonsense.append("\0\n", 2);
    writeFile(cache(), nonsense + "5 6 e\n7 8 d");
    TavroOpenTrash open;
    ASSERT_FALSE(open.Open());
    TavroKeepDirectorySizes(open);
    EXPECT_EQ(readFile(cache()), "7 8 d\n5 6 e\n");
}

TEST_F(DirectorySizes, leave_alone_what_is_no_file_and_what_cannot_be_written) {
    fill();
    fs::remove(cache());
    fs::create_symlink(doc("kept", "kept"), cache());
    measured();
    EXPECT_TRUE(fs::is_symlink(cache()));
    EXPECT_EQ(readFile(docs() / "kept"), "kept");
    fs::remove(cache());
    makeDirectory(cache());
    EXPECT_EQ(measured().size(), 3U);
    EXPECT_TRUE(fs::is_directory(cache()));
    fs::remove(cache());
    makeFifo(cache());
    EXPECT_EQ(measured().size(), 3U);
    fs::remove(cache());
    runUnprivileged(sandbox(), [&] {
        fs::permissions(root(), fs::perms(0500));
        EXPECT_EQ(measured().size(), 3U);
        fs::permissions(root(), fs::perms(0700));
    });
    EXPECT_FALSE(isPresent(cache()));
}

TEST_F(DirectorySizes, are_old_or_new_whichever_call_fails) {
    fill();
    const std::vector<TavroTrashItem> listed = measured();
    bool bFailed = true;
    int written = 0;
    for (std::size_t number = 0; bFailed; ++number) {
        writeFile(cache(), "5 6 b%25\n");
        {
            std::vector<TavroTrashItem> items = listed;
            const NumberedFaults faults({{number, ENOSPC}});
            EXPECT_FALSE(TavroMeasureItems(items, {}, true));
            bFailed = faults.calls().size() > number;
        }
        const std::string bytes = readFile(cache());
        const bool bOld = bytes == "5 6 b%25\n";
        EXPECT_TRUE(bOld || bytes.find(" b%25\n") == bytes.size() - 6) << number << bytes;
        written += bOld ? 0 : 1;
        for (const fs::directory_entry& entry : fs::directory_iterator(root())) {
            const std::string name = entry.path().filename().string();
            EXPECT_TRUE(name == "files" || name == "info" || name == "directorysizes") << name;
        }
    }
    EXPECT_GT(written, 1);
    EXPECT_EQ(readFile(cache()), lineOf("a dir", "a%20dir") + lineOf("b%", "b%25"));
}
