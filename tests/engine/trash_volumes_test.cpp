// The trash of another volume than the home directory's.

#include "names.h"
#include "trash_contents.h"
#include "trash_fixture.h"

#include <cerrno>
#include <unistd.h>

using namespace tavro_trash_test;

namespace {

class TrashOfVolume : public HomeWithTrash {
protected:
    TrashOfVolume() {
        makeDirectory(docs() / "source");
        makeDirectory(docs() / "volume");
    }

    /// Runs `body` with the mount point of a volume, which may have a trash of its own.
    void onVolume(const std::function<void(const fs::path& top)>& body) const {
        const bool bRan =
            runOnVolume(docs() / "source", docs() / "volume", [&](const fs::path& top) {
                const ScopedEnvironment any("TAVRO_TRASH", std::nullopt);
                body(top);
            });
        if (!bRan) {
            GTEST_SKIP() << "nothing can be mounted here";
        }
    }

    static fs::path own(const fs::path& top) {
        return top / (".Trash-" + std::to_string(geteuid()));
    }
    static fs::path shared(const fs::path& top) {
        return top / ".Trash" / std::to_string(geteuid());
    }
    static void makeSticky(const fs::path& directory) {
        makeDirectory(directory);
        fs::permissions(directory, fs::perms::all | fs::perms::sticky_bit);
    }

    /// Where a new file at this path goes.
    static fs::path trashed(const fs::path& path) {
        writeFile(path);
        return trash({path})[0].Entry.TrashPath;
    }
    /// How many of new files at these paths would be copied.
    static std::size_t copied(const std::vector<fs::path>& paths,
                              const TavroTrashOptions& options = {}) {
        for (const fs::path& path : paths) {
            writeFile(path);
        }
        return TavroEntriesToCopy(select(paths), options).size();
    }
    static std::string secondLineOf(const fs::path& file) {
        const std::string bytes = readFile(file);
        const std::size_t begin = bytes.find('\n') + 1;
        return bytes.substr(begin, bytes.find('\n', begin) - begin);
    }
    /// The root directories of the trashes that are found.
    /// Those of the sandbox: the machine's own volumes may have some, too.
    std::vector<std::string> found(const fs::path& onVolume) const {
        TavroTrashes trashes;
        EXPECT_EQ(TavroDescribe(TavroFindTrashes(onVolume.string(), trashes)), "");
        std::vector<std::string> roots;
        for (const TavroTrashFolders& folders : trashes.Folders) {
            if (TavroIsBelow(sandbox().string(), folders.Root)) {
                roots.push_back(folders.Root);
            }
        }
        return roots;
    }
    static std::vector<TavroTrashItem> list(const fs::path& top) {
        std::vector<TavroTrashItem> items;
        EXPECT_EQ(TavroDescribe(TavroListTrash({}, items, TavroTrashFoldersOnVolume(top.string()))),
                  "");
        return items;
    }
};

} // namespace

// -------------------------------------------------------------------------------------------------
// Which trash it is
// -------------------------------------------------------------------------------------------------

TEST_F(TrashOfVolume, takes_what_is_on_the_volume_by_a_rename_and_gives_it_back) {
    onVolume([&](const fs::path& top) {
        const fs::path file = top / "d/a b";
        writeFile(file);
        const TavroIdentity identity = identityOf(file);
        const auto entries = trash({file});
        EXPECT_EQ(entries[0].Entry.OriginalPath, file);
        EXPECT_EQ(entries[0].Entry.TrashPath, own(top) / "files/a b");
        EXPECT_EQ(entries[0].Entry.InfoPath, own(top) / "info/a b.trashinfo");
        EXPECT_EQ(identityOf(own(top) / "files/a b"), identity);
        EXPECT_EQ(secondLineOf(own(top) / "info/a b.trashinfo"), "Path=d/a%20b");
        for (const char* name : {"", "files", "info"}) {
            EXPECT_EQ(modeOf(own(top) / name), 0700U) << name;
        }
        EXPECT_FALSE(isPresent(root()) || isPresent(top / ".Trash"));
        restore(entries);
        EXPECT_EQ(identityOf(file), identity);
        EXPECT_TRUE(fs::is_empty(own(top) / "files") && fs::is_empty(own(top) / "info"));
    });
}

TEST_F(TrashOfVolume, is_private_under_any_umask) {
    onVolume([&](const fs::path& top) {
        const ScopedUmask closed(0777);
        writeFile(top / "a");
        trash({top / "a"});
        for (const char* name : {"", "files", "info"}) {
            EXPECT_EQ(modeOf(own(top) / name), 0700U) << name;
        }
    });
}

TEST_F(TrashOfVolume, is_in_the_directory_of_all_users_when_that_is_sticky_and_no_link) {
    onVolume([&](const fs::path& top) {
        makeDirectory(top / ".Trash");
        fs::permissions(top / ".Trash", fs::perms::all);
        EXPECT_EQ(trashed(top / "a"), own(top) / "files/a");
        fs::remove(top / ".Trash");
        makeSticky(top / "real");
        fs::create_symlink("real", top / ".Trash");
        EXPECT_EQ(trashed(top / "b"), own(top) / "files/b");
        fs::remove(top / ".Trash");
        fs::rename(top / "real", top / ".Trash");
        EXPECT_TRUE(fs::is_empty(top / ".Trash"));
        EXPECT_EQ(trashed(top / "c"), shared(top) / "files/c");
        EXPECT_EQ(modeOf(shared(top)), 0700U);
        EXPECT_EQ(secondLineOf(shared(top) / "info/c.trashinfo"), "Path=c");
        EXPECT_EQ(list(top).size(), 3U);
    });
}

TEST_F(TrashOfVolume, is_not_one_that_others_have_prepared) {
    onVolume([&](const fs::path& top) {
        makeDirectory(home() / "kept/files");
        makeDirectory(home() / "kept/info");
        fs::create_symlink(home() / "kept", own(top));
        EXPECT_EQ(trashed(top / "a"), item("a"));
        fs::remove(own(top));
        makeDirectory(own(top));
        fs::create_symlink(home() / "kept/info", own(top) / "info");
        EXPECT_EQ(trashed(top / "b"), item("b"));
        if (isRoot()) {
            fs::remove_all(own(top));
            makeDirectory(own(top));
            ASSERT_EQ(chown(own(top).c_str(), 12345, 0), 0);
            EXPECT_EQ(trashed(top / "c"), item("c"));
            EXPECT_TRUE(fs::is_empty(own(top)));
        }
        EXPECT_TRUE(fs::is_empty(home() / "kept/files") && fs::is_empty(home() / "kept/info"));
    });
}

TEST_F(TrashOfVolume, is_opened_where_no_link_leads_to_it) {
    onVolume([&](const fs::path& top) {
        const auto open = [](const fs::path& volume) {
            std::string sentences;
            for (const TavroTrashFolders& folders : TavroTrashFoldersOnVolume(volume.string())) {
                TavroOpenTrash trash;
                sentences += TavroDescribe(trash.Open(folders));
                EXPECT_FALSE(sentences.empty() && trash.Files.IsOpen());
            }
            return sentences;
        };
        EXPECT_EQ(open(top / "missing"), "");
        EXPECT_EQ(open(top), "");
        for (const char* name : {"files", "info", ""}) {
            const fs::path link = *name == 0 ? own(top) : own(top) / name;
            makeDirectory(own(top) / "files");
            makeDirectory(own(top) / "info");
            fs::rename(link, top / "kept");
            fs::create_directory_symlink(top / "kept", link);
            EXPECT_EQ(open(top).rfind("Cannot read " + inQuotes(own(top)), 0), 0U) << name;
            EXPECT_EQ(found(top), std::vector<std::string>{}) << name;
            fs::remove_all(top / "kept");
            fs::remove_all(own(top));
        }
    });
}

TEST_F(TrashOfVolume, takes_nothing_when_a_link_took_its_place_meanwhile) {
    onVolume([&](const fs::path& top) {
        makeDirectory(home() / "kept/files");
        makeDirectory(home() / "kept/info");
        TavroCallbacks callbacks;
        callbacks.BeforeActs = [&](TavroOperationKind, const std::vector<TavroStep>&) {
            fs::rename(own(top), top / "away");
            fs::create_symlink(home() / "kept", own(top));
            return TavroFailure();
        };
        writeFile(top / "a");
        EXPECT_EQ(trashInVain({top / "a"}, callbacks).Batch.Failure.Error, std::errc(ESTALE));
        EXPECT_TRUE(isPresent(top / "a"));
        EXPECT_TRUE(fs::is_empty(home() / "kept/files"));
    });
}

TEST_F(TrashOfVolume, is_not_used_where_the_home_trash_is_to_take_all) {
    onVolume([&](const fs::path& top) {
        TavroTrashOptions options;
        options.bHome = true;
        EXPECT_EQ(copied({top / "a", top / "b"}, options), 2U);
        const ScopedEnvironment home("TAVRO_TRASH", "home");
        EXPECT_EQ(copied({top / "a", docs() / "b"}), 1U);
        EXPECT_EQ(trashed(top / "a"), item("a"));
        EXPECT_EQ(pathLine("a"), "Path=" + (top / "a").string());
        EXPECT_FALSE(isPresent(own(top)));
        const ScopedEnvironment any("TAVRO_TRASH", "any");
        EXPECT_EQ(copied({top / "a", docs() / "b"}), 0U);
        EXPECT_EQ(trashed(top / "a"), own(top) / "files/a");
    });
}

TEST_F(TrashOfVolume, has_relative_paths_in_its_records_of_what_was_on_the_volume_alone) {
    onVolume([&](const fs::path& top) {
        writeFile(home() / "a");
        trash({home() / "a"});
        EXPECT_EQ(pathLine("a"), "Path=" + (home() / "a").string());
        writeFile(top / "hidden");
        const TavroTrashReport report =
            TavroTrashSelection(select({top / "hidden"}), {}, {}, {(home() / "b").string()});
        EXPECT_EQ(TavroDescribe(report), "");
        EXPECT_EQ(secondLineOf(own(top) / "info/b.trashinfo"), "Path=" + (home() / "b").string());
    });
}

TEST_F(TrashOfVolume, is_on_the_disk_before_anything_goes_there) {
    onVolume([&](const fs::path& top) {
        for (const bool bSync : {true, false}) {
            fs::remove_all(own(top));
            writeFile(top / "a");
            writeFile(top / "b");
            std::vector<std::string> synced;
            bool bMoved = false;
            const CallObserver observer([&](const std::string& call, const std::string& path) {
                bMoved = bMoved || call.rfind("rename", 0) == 0;
                if (call == "fsync" && !bMoved) {
                    synced.push_back(path);
                }
            });
            TavroCallbacks callbacks;
            callbacks.bSync = bSync;
            trash({top / "a"}, callbacks);
            EXPECT_EQ(std::count(synced.begin(), synced.end(), top), bSync ? 1 : 0);
            EXPECT_EQ(std::count(synced.begin(), synced.end(), own(top)), bSync ? 2 : 0);
            bMoved = false;
            synced.clear();
            trash({top / "b"}, callbacks);
            EXPECT_EQ(std::count(synced.begin(), synced.end(), top), 0) << "it was there";
        }
    });
}

TEST_F(TrashOfVolume, that_cannot_be_brought_to_the_disk_is_none) {
    onVolume([&](const fs::path& top) {
        const FaultInjector fault({{"fsync", EIO, top.string(), 1, false, true}});
        EXPECT_EQ(trashed(top / "a"), item("a"));
        EXPECT_EQ(fault.fired(), 1);
        EXPECT_FALSE(isPresent(own(top)));
    });
}

// -------------------------------------------------------------------------------------------------
// Finding it
// -------------------------------------------------------------------------------------------------

TEST_F(TrashOfVolume, is_found_with_that_of_the_home_directory_or_by_a_path) {
    onVolume([&](const fs::path& top) {
        const auto count = [&](const std::vector<std::string>& roots) {
            return std::count(roots.begin(), roots.end(), own(top).string());
        };
        EXPECT_EQ(found(top), std::vector<std::string>{});
        EXPECT_EQ(trashed(top / "a"), own(top) / "files/a");
        writeFile(top / "d/file");
        for (const fs::path& path : {top, top / "d/file", own(top) / "info"}) {
            EXPECT_EQ(found(path), std::vector<std::string>{own(top)});
        }
        EXPECT_EQ(found(""), (std::vector<std::string>{root(), own(top)}));
        EXPECT_EQ(count(found("")), 1);
        EXPECT_EQ(found(home()).front(), root());
        EXPECT_EQ(count(found(home())), 0);
        const ScopedEnvironment home("TAVRO_TRASH", "home");
        EXPECT_EQ(found(""), std::vector<std::string>{root()});
        TavroTrashes trashes;
        const TavroFailure failure = TavroFindTrashes((top / "missing").string(), trashes);
        EXPECT_EQ(failure.Kind, TavroFailureKind::NoSuchEntry);
        EXPECT_EQ(failure.Path, top / "missing");
    });
}

TEST_F(TrashOfVolume, that_does_not_answer_is_passed_over_and_named) {
    onVolume([&](const fs::path& top) {
        trashed(top / "a");
        const pid_t self = getpid();
        const CallObserver observer([&](const std::string&, const std::string& path) {
            if (path == own(top) && getpid() != self) {
                pause(); // until it is killed
            }
        });
        TavroTrashes trashes;
        EXPECT_EQ(TavroDescribe(TavroFindTrashes("", trashes)), "");
        EXPECT_EQ(trashes.Silent, std::vector<std::string>{top});
        EXPECT_EQ(trashes.Folders.at(0).Root, root());
        for (const TavroTrashFolders& folders : trashes.Folders) {
            EXPECT_NE(folders.Root, own(top));
        }
        const TavroFailure failure = TavroFindTrashes(own(top).string(), trashes);
        EXPECT_EQ(failure.Kind, TavroFailureKind::LookAt);
        EXPECT_EQ(failure.Error, std::errc::timed_out);
    });
}

TEST_F(TrashOfVolume, is_not_looked_for_in_vain) {
    TavroTrashes trashes;
    {
        const FaultInjector fault({{"openat", EIO, docs().string(), 1, false, true}});
        const TavroFailure failure = TavroFindTrashes(docs().string(), trashes);
        EXPECT_EQ(failure.Kind, TavroFailureKind::LookAt);
        EXPECT_EQ(failure.Path, docs());
        EXPECT_EQ(fault.fired(), 1);
    }
    const ScopedEnvironment none("HOME", std::nullopt);
    EXPECT_EQ(TavroFindTrashes("", trashes).Kind, TavroFailureKind::NoHome);
    EXPECT_TRUE(trashes.Folders.empty());
}

TEST_F(TrashOfVolume, of_a_path_is_the_one_that_the_text_tells) {
    const std::string user = std::to_string(geteuid());
    for (const std::string& root : {"/v/.Trash-" + user, "/v/.Trash/" + user}) {
        for (const std::string& path : {root + "/files/a", root + "/info/a.trashinfo"}) {
            EXPECT_EQ(TavroTrashFoldersOf(path).Root, root);
            EXPECT_EQ(TavroTrashFoldersOf(path).Base, "/v");
            EXPECT_TRUE(TavroTrashFoldersOf(path).bVolume);
        }
        EXPECT_EQ(TavroTrashFoldersOf(root + "/files/a/b").Root, this->root());
        EXPECT_EQ(TavroTrashFoldersOf(root + "/a").Root, this->root());
    }
}

// -------------------------------------------------------------------------------------------------
// What is in it
// -------------------------------------------------------------------------------------------------

TEST_F(TrashOfVolume, is_listed_restored_from_and_emptied_by_itself) {
    onVolume([&](const fs::path& top) {
        doc("at home");
        trash({docs() / "at home"});
        trashed(top / "d/a");
        trashed(top / "b");
        fs::remove(top / "d");
        const auto items = list(top);
        ASSERT_EQ(items.size(), 2U);
        for (const TavroTrashItem& listed : items) {
            if (listed.Name == "a") {
                EXPECT_EQ(listed.OriginalPath, top / "d/a");
                restore({listed.Trashed()});
                EXPECT_TRUE(isPresent(top / "d/a"));
            }
        }
        const auto all = TavroTrashFoldersOnVolume(top.string());
        EXPECT_EQ(TavroDescribe(TavroEmptyTrash({}, all)), "");
        EXPECT_TRUE(fs::is_empty(own(top) / "files") && fs::is_empty(own(top) / "info"));
        EXPECT_TRUE(isPresent(item("at home")) && isPresent(record("at home")));
    });
}

TEST_F(TrashOfVolume, gives_nothing_back_to_another_volume) {
    onVolume([&](const fs::path& top) {
        trashed(top / "d/a");
        fs::remove(top / "d");
        fs::create_directory_symlink(home(), top / "d");
        const TavroTrashedEntry entry = list(top).at(0).Trashed();
        EXPECT_EQ(TavroDescribe(restoreInVain({entry})), "Cannot restore " + inQuotes(top / "d/a") +
                                                             ": a link in its path leads out of " +
                                                             inQuotes(top));
        EXPECT_FALSE(isPresent(home() / "a"));
        EXPECT_TRUE(isPresent(own(top) / "files/a"));
    });
}

TEST_F(TrashOfVolume, loses_no_record_through_a_link) {
    onVolume([&](const fs::path& top) {
        writeFile(top / "a");
        const auto entries = trash({top / "a"});
        writeFile(home() / "kept/a.trashinfo");
        fs::remove_all(own(top) / "info");
        fs::create_directory_symlink(home() / "kept", own(top) / "info");
        restore(entries);
        EXPECT_TRUE(isPresent(top / "a") && isPresent(home() / "kept/a.trashinfo"));
    });
}

TEST_F(TrashOfVolume, is_mended_with_paths_at_the_mount_point) {
    onVolume([&](const fs::path& top) {
        writeFile(own(top) / "files/stray");
        makeDirectory(own(top) / "info");
        const auto all = TavroTrashFoldersOnVolume(top.string());
        std::vector<TavroTrashFinding> findings;
        EXPECT_EQ(TavroDescribe(TavroExamineTrash(findings, all)), "");
        ASSERT_EQ(findings.size(), 1U);
        EXPECT_EQ(findings[0].Path, own(top) / "files/stray");
        EXPECT_EQ(TavroDescribe(TavroMendTrash(findings[0])), "");
        EXPECT_EQ(secondLineOf(own(top) / "info/stray.trashinfo"), "Path=stray");
        EXPECT_EQ(list(top).at(0).OriginalPath, top / "stray");
    });
}
