/// Why something was not done: what failed, the system's reason, and the paths. Rooms decide by the
/// kind; only the public edge turns it into a sentence.

#ifndef TAVRO_ENGINE_FAILURE_H
#define TAVRO_ENGINE_FAILURE_H

#include <string>
#include <system_error>

/// What failed. The sentence of each kind stands in failure.cpp.
enum class TavroFailureKind {
    None,
    Cancelled,
    // Reading, writing, copying.
    Read,
    Create,
    Write,
    Copy,
    CopyLink,
    CopyPipe,
    Socket,
    Device,
    AudioTrack,
    BecameShorter,
    CopyNotWhole,
    SetAttributes,
    CreateDirectory,
    CopyIntoItself,
    // Moving.
    Move,
    MoveTo,
    MoveOutOf,
    MoveIntoItself,
    Changed,
    RemoveAfterCopy,
    RemoveEmptied,
    RemoveIncompleteCopy,
    CopyStays,
    Publish,
    // Conflicts.
    SameEntry,
    Taken,
    Replace,
    ReplaceHolder,
    ReplaceOwnWork,
    ReplaceHolderOfOwnWork,
    LiesAt,
    // Selecting and guarding.
    NothingSelected,
    NoSuchEntry,
    LookAt,
    RefuseTrash,
    RefuseDelete,
    RefuseMove,
    RefuseRename,
    RefuseDots,
    SelectedInside,
    MustCopy,
    // The trash.
    NoHome,
    TrashNeedsDirectory,
    CreateTrashDirectory,
    MakeTrashPrivate,
    CreateRecord,
    WriteRecord,
    NothingToRestore,
    ItemMissing,
    OriginUnknown,
    LeavesVolume,
    RestoreTargetTaken,
    ListedTwice,
    RestoreToOnePlace,
    Remove,
    ItemChanged,
    NoItemName,
    NotInTrash,
    NothingMatches,
    NothingWithin,
    SeveralNamed,
    ShortenName,
    SetRecordAside,
    // Renaming and creating.
    RenameTargetEmpty,
    RenameTargetNoName,
    RenameTakenByLink,
    RenameAudioTrack,
    Rename,
    DirectoryPathEmpty,
    // Undoing.
    Missing,
    Replaced,
    InTheWay,
    NotDirectory,
    NotEmpty,
    RemoveForUndo,
    ReadForUndo,
    NothingToUndo,
    NothingToRedo,
    NothingToDrop,
    NothingToResume,
    NoSuchOperation,
    DeletionIsFinal,
    DeletionWasInterrupted,
    MaybeOther,
    // The history.
    HistoryNoHome,
    HistoryOpen,
    HistoryRead,
    HistorySave,
    HistoryBusy,
    HistoryRunning,
    HistorySetAside,
    HistoryUnrecordable,
    HistoryInvalid,
};

/// A failure, or none: a default-constructed one says that all went well.
struct TavroFailure {
    TavroFailureKind Kind = TavroFailureKind::None;
    std::error_code Error = {}; ///< The system's reason, or a reason of the guard; may be clear.
    std::string Path = {};      ///< What it is about.
    std::string Other = {};     ///< The second path, where there is one; of SeveralNamed the list.

    /// True when something failed.
    explicit operator bool() const {
        return Kind != TavroFailureKind::None;
    }
};

/// A failure with the system's reason for an error number.
TavroFailure TavroFail(TavroFailureKind Kind, int Error, std::string Path, std::string Other = "");

/// @return one English sentence without a full stop that names the paths; empty for no failure.
std::string TavroDescribe(const TavroFailure& Failure);

#endif
