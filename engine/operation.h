/// What one operation did, does or is to do, in steps that can be undone.

#ifndef TAVRO_ENGINE_OPERATION_H
#define TAVRO_ENGINE_OPERATION_H

#include "identity.h"

#include <cstdint>
#include <string>
#include <vector>

enum class TavroOperationKind {
    Trash,           ///< Undone by a restore, redone by trashing again.
    Rename,          ///< Undone by renaming back.
    Move,            ///< Undone by moving back.
    Copy,            ///< Undone by trashing what was copied, redone by restoring that.
    CreateDirectory, ///< Undone by removing the directories, only when they are empty.
    Restore,         ///< Kept only while it is on its way.
    Delete,          ///< Cannot be undone, but gone on with; as the next.
    Empty,
};

enum class TavroOperationState {
    Done,        ///< Can be undone.
    Undone,      ///< Can be redone.
    Doing = 3,   ///< Was begun; as are the next two. Whose process is gone is interrupted.
    Undoing = 4, ///< Goes back, from Done to Undone.
    Redoing = 5,
};

/// What one step of an operation did.
enum class TavroStepRole {
    Moved,            ///< `From` went to `To`.
    Copied,           ///< `From` was copied to `To`.
    Trashed,          ///< `From` lies in the trash at `To`, with its record at `Record`.
    CreatedDirectory, ///< `To` was created.
    RemovedDirectory, ///< `From` was emptied by a merging move and removed; it had the mode `Mode`.
    Replaced, ///< As Trashed: something else took the place `From` of what lies in the trash.
    Planned,  ///< `From` is to go to `To`; only while the operation is on its way.
    Deleted,  ///< As Planned: `From` is to go for good.
};

/// One thing that an operation did. Paths are absolute, of any bytes but zero.
struct TavroStep {
    TavroStepRole Role = TavroStepRole::Moved;
    std::string From = {};
    std::string To = {};
    std::string Record =
        {}; ///< Of a Trashed step: `ROOT/info/NAME.trashinfo` for `ROOT/files/NAME`.

    /// The file at `To`; while the operation is undone, the one at `From`. An inode of 0: not
    /// known, or of a directory that the operation found there. What is to go for good is at
    /// `From`.
    TavroIdentity Identity = {};
    std::int64_t ChangeTime = 0; ///< Of that file when the operation ended, or that moment; 0: not
                                 ///< known.
    std::uint32_t Mode = 0;      ///< Of a created or removed directory; of a plan, its policy.
    bool bDirectory = false;     ///< As the trash record of a Trashed step has it.

    /// Of a removed directory: what else it had, as TavroPackAttributes gives it. Empty: not known.
    std::string Attributes = {};

    // While the operation is on its way:

    std::string Staged = {};     ///< The name under which it waits beside where it goes.
    TavroIdentity Source = {};   ///< The file at `From`, when that is another one; of what is to go
                                 ///< for good its directory,
    std::int64_t SourceTime = 0; ///< and when it was changed last; when what is to go was created.

    bool operator==(const TavroStep& Other) const;
};

/// One operation.
struct TavroOperation {
    std::int64_t Id = 0; ///< Given by the history; grows with time.
    TavroOperationKind Kind = TavroOperationKind::Trash;
    TavroOperationState State = TavroOperationState::Done;
    std::int64_t Time = 0; ///< In seconds since 1970.

    /// First the main steps, in the order in which they were done, so that the first one tells what
    /// the operation is about; then created directories, outer ones before inner ones; then removed
    /// ones, inner ones first. What is in the trash because a copy was undone has Trashed steps
    /// beside the Copied ones.
    std::vector<TavroStep> Steps;

    /// Of one on its way: what its hidden names begin with, and the marks of the starts of the
    /// system in which they were given, with a blank before each.
    std::string Staging = {};
};

/// Whether a step is what an operation of that kind is about, and no circumstance of it.
bool TavroIsMainStep(const TavroStep& Step, TavroOperationKind What);

/// Whether operations of that kind take away for good.
bool TavroIsDeletion(TavroOperationKind What);

#endif
