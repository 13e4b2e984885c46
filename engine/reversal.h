/// One undo or redo on the disk: what it checks, and how it acts.

#ifndef TAVRO_ENGINE_REVERSAL_H
#define TAVRO_ENGINE_REVERSAL_H

#include "changes.h"
#include "guard.h"
#include "move.h"
#include "record.h"
#include "recovery.h"
#include "trash_destinations.h"
#include "undo.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

/// A file that comes to a path from which another one goes. It waits beside that one, and both
/// exchange their names.
struct TavroSwap {
    TavroStep* Step;                       ///< Of what comes; not to be used when steps were added.
    std::unique_ptr<TavroStagedCopy> Copy; ///< Knows the places, also where nothing is copied.
    std::string Hidden;
    TavroIdentity Comes;
    std::string Record; ///< In the trash, of what comes from there.
    bool bRename = false;
    bool bDone = false;

    /// Of what goes, when a rename brings it to a trash: as it will lie there.
    TavroStep Goes = {};
    TavroTrashDestination* Trash = nullptr;
    bool bTrashed = false;
};

/// One undo or redo on the disk.
class TavroReversal {
public:
    using Role = TavroStepRole;
    using Steps = std::vector<TavroStep*>;
    using Directories = std::map<std::string, TavroIdentity>; ///< Outer ones first.

    /// @param Made  directories that it has made before it was interrupted.
    TavroReversal(bool bUndo, const TavroCallbacks& Callbacks, TavroUndoReport& Report,
                  Directories Made = {})
        : m_bUndo(bUndo), m_callbacks(Callbacks), m_report(Report), m_steps(Report.Operation.Steps),
          m_made(std::move(Made)), m_changes(Callbacks.bSync), m_progress(Callbacks) {}

    TavroFailure Run();

    /// Whether the steps of an undo find what they need.
    TavroFailure Check();

private:
    Steps StepsOf(Role What, bool bReversed = false);
    Steps ToMake();
    Steps ToRemove();

    static bool IsNamesake(const TavroStep& Step, const TavroPlace& Place,
                           const struct stat& Status);
    TavroFailure CheckFile(const TavroStep& Step, const std::string& Path, TavroSeenEntry& OutSeen);
    TavroFailure CheckHolder(const std::string& Path);
    TavroFailure CheckFree(const std::string& Path);
    TavroFailure CheckWithin(const TavroStep& Step);
    const TavroTrashFolders& TrashOf(const TavroStep& Step);
    TavroFailure CheckRecord(const TavroStep& Step, const TavroFileState& State);
    TavroFailure CheckItem(const TavroStep& Step, TavroSeenEntry& OutSeen);
    TavroFailure CheckEmpty(const TavroStep& Step, const std::set<std::string>& Created);
    TavroFailure CheckCreated();

    TavroFailure CheckToMake();
    TavroFailure MakeDirectories();
    void Remember(const std::vector<std::string>& Made);
    void SetModes();
    static void Dress(int Directory, const TavroStep& Step);
    int RemoveDirectory(const std::string& Path, const TavroIdentity& Identity, mode_t& OutMode);
    TavroFailure RemoveDirectories();
    TavroFailure RemoveCreated();
    TavroFailure CreateAgain();

    Steps OutermostCopies();
    Steps WhatComes(Steps& OutGoes);
    TavroFailure CheckSwap(const TavroStep& Comes, const TavroStep& Goes, TavroSeenEntry& OutComes,
                           TavroSeenEntry& OutGoes);
    TavroFailure Stage(TavroStep& Comes, const TavroStep& Goes);
    TavroFailure TellThatItBegins();
    TavroTrashDestination* FindTrash(const TavroPlace& Place);
    TavroFailure Claim();
    TavroFailure TellOfExchange();
    int RenameIn(const TavroSwap& What);
    int TrashOut(TavroSwap& IoSwap);
    int TakeOut(const TavroSwap& What);
    void DropClaim(TavroSwap& IoSwap);
    TavroFailure Exchange(TavroSwap& IoSwap);
    TavroFailure ExchangeAll();
    void TakeExchangesBack();
    TavroFailure FinishExchanges();

    /// Where the file is that is to leave a path.
    const std::string& Leaving(const std::string& Path) const {
        const auto hidden = m_hidden.find(Path);
        return hidden == m_hidden.end() ? Path : hidden->second;
    }

    void DropExchanged(Steps& IoSteps) const;
    TavroFailure MoveAll();
    TavroFailure RunMoves(const Steps& Of, std::vector<TavroBatchStep>& Moves);
    TavroFailure Trash(const Steps& Entries, std::vector<TavroStep>& OutTrashed,
                       Role As = Role::Trashed);
    TavroFailure TrashAgain();
    void DropTrashed();
    TavroFailure TrashCopies();
    TavroFailure Restore(Role What);
    TavroFailure RestoreCopies();
    TavroFailure TrashReplaced();
    TavroFailure ActOnMain();
    TavroFailure Act();

    const bool m_bUndo;
    const TavroCallbacks& m_callbacks;
    TavroUndoReport& m_report;
    std::vector<TavroStep>& m_steps;
    TavroPlaces m_places;
    std::string m_trashFiles;         ///< That hold the item that was looked at last,
    TavroTrashFolders m_trashFolders; ///< and all of that trash.
    TavroGuard m_guard{TavroAct::Move};
    Directories m_made;
    TavroChanges m_changes;
    TavroProgressTeller m_progress;
    TavroHardLinks m_links;
    bool m_bTold = false; ///< What the history was told is on the disk.
    std::vector<TavroSwap> m_swaps;
    std::unordered_map<std::string, std::string> m_hidden; ///< What has left a path, and is to go.
    /// For what goes where something comes.
    TavroTrashDestinations m_trashes{false, m_callbacks.bSync};
    std::unordered_map<std::string, TavroStep> m_trashed; ///< By paths, what went there so.

    /// Of directories that something goes to: where they were when all was checked.
    std::unordered_map<std::string, std::string> m_ownPaths;
};

#endif
