// Which calls bring changes to the disk.

#include "changes.h"

#include "fault_injector.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <sched.h>
#include <sys/mount.h>

namespace fs = std::filesystem;
using namespace tavro_test;

namespace {

using Calls = std::vector<std::string>;

/// Directories on the file system of the temporary directory. What kind of disk that is decides how
/// many calls are needed.
class Changes : public testing::Test {
protected:
    std::shared_ptr<const TavroDirectory> directory(const Sandbox& box, const std::string& name) {
        makeDirectory(box / name);
        TavroPlaces places;
        TavroPlace inside;
        EXPECT_FALSE(places.Find((box / name / "x").string(), inside));
        return inside.Directory;
    }
    std::shared_ptr<const TavroDirectory> directory(const std::string& name) {
        return directory(m_box, name);
    }

    /// The calls that bring changes to the disk, as "fsync a".
    Calls flush(TavroChanges& changes, int expected = 0) {
        Calls calls;
        const CallObserver observer([&](const std::string& call, const std::string& path) {
            if (call == "fsync" || call == "fdatasync" || call == "syncfs") {
                calls.push_back(call + " " + fs::path(path).filename().string());
            }
        });
        EXPECT_EQ(changes.Flush(), expected);
        return calls;
    }

    TavroDisk disk() {
        return TavroDiskOf(directory("probe")->Descriptor.Number());
    }

    Sandbox m_box;
};

#define NEEDS_DISK(KIND)                                                                           \
    if (disk() != (KIND)) {                                                                        \
        GTEST_SKIP() << "the temporary directory is on a disk of another kind";                    \
    }

TEST_F(Changes, nothing_costs_no_call) {
    TavroChanges changes(true);
    EXPECT_EQ(flush(changes), Calls{});
}

TEST_F(Changes, are_not_waited_for_when_nobody_wants_it) {
    TavroChanges changes(false);
    changes.Add(directory("a"));
    changes.AddBytes(directory("b"));
    EXPECT_EQ(flush(changes), Calls{});
}

TEST_F(Changes, of_each_file_system_are_synced) {
    const Sandbox other(secondFileSystem);
    if (!onDifferentDevices(m_box.path(), other.path())) {
        GTEST_SKIP() << secondFileSystem << " is no other file system";
    }
    TavroChanges changes(true);
    changes.Add(directory("a"));
    changes.Add(directory(other, "b"));
    changes.AddBytes(directory(other, "c"));
    changes.Add(directory("d"));
    const Calls calls = flush(changes);
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "fsync d"), 1);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "syncfs c"), 1);
}

TEST_F(Changes, that_one_log_orders_are_synced_with_the_last) {
    NEEDS_DISK(TavroDisk::OrderedLog);
    TavroChanges changes(true);
    for (const char* name : {"a", "b", "c", "d", "e", "b"}) {
        changes.Add(directory(name));
    }
    EXPECT_EQ(flush(changes), Calls{"fsync b"});
    EXPECT_EQ(flush(changes), Calls{}) << "they are forgotten then";
}

/// Mounts an overlay in a child process and runs `body` there: on one, directories are independent.
/// @return false when nothing can be mounted here.
bool runOnOverlay(const Sandbox& box, const std::function<void()>& body) {
    for (const char* name : {"lower", "upper", "work", "merged"}) {
        makeDirectory(box / name);
    }
    const std::string options = "lowerdir=" + (box / "lower").string() +
                                ",upperdir=" + (box / "upper").string() +
                                ",workdir=" + (box / "work").string();
    runInChild([&] {
        if (unshare(CLONE_NEWNS) == 0 &&
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount("overlay", (box / "merged").c_str(), "overlay", 0, options.c_str()) == 0) {
            body();
            writeFile(box / "ran");
        }
    });
    return isPresent(box / "ran");
}

TEST_F(Changes, of_independent_directories_are_synced_one_by_one_or_all_at_once) {
    const bool bRan = runOnOverlay(m_box, [&] {
        TavroChanges changes(true);
        ASSERT_EQ(TavroDiskOf(directory("merged/a")->Descriptor.Number()), TavroDisk::Independent);
        for (const char* name : {"a", "b", "c", "a"}) {
            changes.Add(directory(std::string("merged/") + name));
        }
        EXPECT_EQ(flush(changes), (Calls{"fsync b", "fsync c", "fsync a"}));
        for (const char* name : {"a", "b", "c", "d"}) {
            changes.Add(directory(std::string("merged/") + name));
        }
        EXPECT_EQ(flush(changes), Calls{"syncfs d"});
    });
    if (!bRan) {
        GTEST_SKIP() << "this process cannot mount an overlay";
    }
}

TEST_F(Changes, of_bytes_take_the_whole_file_system) {
    TavroChanges changes(true);
    changes.Add(directory("a"));
    changes.AddBytes(directory("b"));
    changes.Add(directory("c"));
    EXPECT_EQ(flush(changes), Calls{"syncfs c"});
    changes.Add(directory("a"));
    changes.Add(directory("b"));
    changes.AddBytes(directory("b"));
    EXPECT_EQ(flush(changes), Calls{"syncfs b"});
}

TEST_F(Changes, that_cannot_be_brought_to_the_disk_are_told) {
    TavroChanges changes(true);
    changes.Add(directory("a"));
    const FaultInjector fault({{"fsync", EIO, "/a"}});
    EXPECT_EQ(flush(changes, EIO).size(), 1U);
    EXPECT_EQ(fault.fired(), 1);
    EXPECT_EQ(flush(changes), Calls{});
}

TEST_F(Changes, to_a_directory_that_a_file_system_does_not_find_any_more_need_no_disk) {
    TavroChanges changes(true);
    changes.Add(directory("a"));
    const FaultInjector fault({{"fsync", ENOENT, "/a"}});
    EXPECT_EQ(flush(changes).size(), 1U);
    EXPECT_EQ(fault.fired(), 1);
}

} // namespace
