#include "failure.h"

#include <algorithm>
#include <utility>

namespace {

using Kind = TavroFailureKind;

/// A sentence: %p is the path in quotes, %o the other path in quotes, %O without, %e the reason,
/// %h what is held: the other path in quotes after a blank, where there is one.
struct Sentence {
    Kind What;
    const char* Text;
};

constexpr Sentence sentences[] = {
    {Kind::Cancelled, "Cancelled"},
    {Kind::Read, "Cannot read %p: %e"},
    {Kind::Create, "Cannot create %p: %e"},
    {Kind::Write, "Cannot write %p: %e"},
    {Kind::Copy, "Cannot copy %p: %e"},
    {Kind::CopyLink, "Cannot copy the link %p: %e"},
    {Kind::CopyPipe, "Cannot copy the pipe %p: %e"},
    {Kind::Socket, "Cannot copy the socket %p"},
    {Kind::Device, "Cannot copy the device %p"},
    {Kind::AudioTrack, "Cannot read audio CD track %p: this build cannot read discs"},
    {Kind::BecameShorter, "%p became shorter while it was being copied"},
    {Kind::CopyNotWhole, "The copy of %p is incomplete"},
    {Kind::SetAttributes, "Cannot set the attributes of %p: %e"},
    {Kind::CreateDirectory, "Cannot create the directory %p: %e"},
    {Kind::CopyIntoItself, "Cannot copy the directory %p into itself"},
    {Kind::Move, "Cannot move %p: %e"},
    {Kind::MoveTo, "Cannot move %p to %o: %e"},
    {Kind::MoveOutOf, "Cannot move out of %p: %e"},
    {Kind::MoveIntoItself, "Cannot move the directory %p into itself"},
    {Kind::Changed, "%p changed while it was being moved"},
    {Kind::RemoveAfterCopy, "Cannot remove %p after copying: %e"},
    {Kind::RemoveEmptied, "Cannot remove the emptied directory %p: %e"},
    {Kind::RemoveIncompleteCopy, "Cannot remove the incomplete copy %p: %e"},
    {Kind::CopyStays, "A copy of %p is left at %o"},
    {Kind::Publish, "Cannot put the copy of %p at %o: %e"},
    {Kind::SameEntry, "%p and %o are the same"},
    {Kind::Taken, "%p already exists"},
    {Kind::Replace, "Cannot replace %p: %e"},
    {Kind::ReplaceHolder, "Cannot replace %o: it holds %p"},
    {Kind::ReplaceOwnWork, "Cannot replace %o: this command has just put it there"},
    {Kind::ReplaceHolderOfOwnWork,
     "Cannot replace %o: it holds what this command has just put there"},
    {Kind::LiesAt, "What was at %p is now at %o: %e"},
    {Kind::NothingSelected, "Nothing is selected"},
    {Kind::NoSuchEntry, "No such entry: %p"},
    {Kind::LookAt, "Cannot look at %p: %e"},
    {Kind::RefuseTrash, "Cannot move %p to the trash: %e%h"},
    {Kind::RefuseDelete, "Refusing to delete %p: %e%h"},
    {Kind::RefuseMove, "Cannot move %p: %e%h"},
    {Kind::RefuseRename, "Cannot rename %p: %e%h"},
    {Kind::RefuseDots, "Cannot move %p to the trash: it ends in '.' or '..'"},
    {Kind::SelectedInside, "Cannot move %p to the trash: it is inside %o, which is selected too"},
    {Kind::MustCopy,
     "Cannot move %p to the trash without copying it: its volume cannot hold a trash"},
    {Kind::NoHome, "There is no trash: HOME is not set to an absolute path"},
    {Kind::TrashNeedsDirectory, "%p is in the way: the trash needs a directory there"},
    {Kind::CreateTrashDirectory, "Cannot create the trash directory %p: %e"},
    {Kind::MakeTrashPrivate, "Cannot make the trash directory %p private: %e"},
    {Kind::CreateRecord, "Cannot create the trash record %p: %e"},
    {Kind::WriteRecord, "Cannot write the trash record %p: %e"},
    {Kind::NothingToRestore, "Nothing to restore"},
    {Kind::ItemMissing, "%p is no longer in the trash"},
    {Kind::OriginUnknown, "Cannot tell where %p came from"},
    {Kind::LeavesVolume, "Cannot restore %p: a link in its path leads out of %o"},
    {Kind::RestoreTargetTaken, "Cannot restore %p: something is there"},
    {Kind::ListedTwice, "%p is listed twice"},
    {Kind::RestoreToOnePlace, "Cannot restore two entries to %p"},
    {Kind::Remove, "Cannot remove %p: %e"},
    {Kind::ItemChanged, "%p changed in the meantime and was left alone"},
    {Kind::NoItemName, "%p is not the name of an item in the trash"},
    {Kind::NotInTrash, "%p is not in the trash"},
    {Kind::NothingMatches, "Nothing in the trash matches %p"},
    {Kind::NothingWithin, "Nothing in the trash matches %p within these limits"},
    {Kind::SeveralNamed, "Several entries named %p are in the trash, from %O"},
    {Kind::ShortenName, "Cannot shorten the name of %p: %e"},
    {Kind::SetRecordAside, "Cannot set %p aside: %e"},
    {Kind::RenameTargetEmpty, "The new name is empty"},
    {Kind::RenameTargetNoName, "%p already exists, as a directory"},
    {Kind::RenameTakenByLink, "%p already exists, as a link to nothing"},
    {Kind::RenameAudioTrack, "Cannot rename an audio CD track: %p"},
    {Kind::Rename, "Cannot rename %p to %o: %e"},
    {Kind::DirectoryPathEmpty, "The name of the new directory is empty"},
    {Kind::Missing, "%p is missing"},
    {Kind::Replaced, "%p is not what it was: %O is there now"},
    {Kind::InTheWay, "%p is in the way"},
    {Kind::NotDirectory, "%p is no longer a directory"},
    {Kind::NotEmpty, "The directory %p is not empty"},
    {Kind::RemoveForUndo, "Cannot remove the directory %p: %e"},
    {Kind::ReadForUndo, "Cannot read the directory %p: %e"},
    {Kind::NothingToUndo, "Nothing to undo"},
    {Kind::NothingToRedo, "Nothing to redo"},
    {Kind::NothingToDrop, "Nothing to drop"},
    {Kind::NothingToResume, "Nothing was interrupted"},
    {Kind::NoSuchOperation, "The history has no operation %O that can be undone"},
    {Kind::DeletionIsFinal, "A deletion is final"},
    {Kind::DeletionWasInterrupted,
     "The deletion of %p was interrupted and cannot be undone: 'tavro resume' finishes it, "
     "'tavro history --drop' keeps what is left"},
    {Kind::MaybeOther, "%p may be another entry by now and was left alone"},
    {Kind::HistoryNoHome, "There is no place for the history: HOME is not set to an absolute path"},
    {Kind::HistoryOpen, "Cannot open the history %p: %e"},
    {Kind::HistoryRead, "Cannot read the history %p: %e"},
    {Kind::HistorySave, "Cannot save the history %p: %e"},
    {Kind::HistoryBusy, "The history %p is in use by another process"},
    {Kind::HistoryRunning, "Another process is still working on the newest operation"},
    {Kind::HistorySetAside, "Cannot set aside the damaged history %p: %e"},
    {Kind::HistoryUnrecordable,
     "Cannot record an operation without anything to undo, or with relative paths"},
    {Kind::HistoryInvalid, "The history %p contains an invalid operation"},
};

std::string Placeholder(char Letter, const TavroFailure& Failure) {
    switch (Letter) {
    case 'p':
        return "'" + Failure.Path + "'";
    case 'o':
        return "'" + Failure.Other + "'";
    case 'O':
        return Failure.Other;
    case 'h':
        return Failure.Other.empty() ? "" : " '" + Failure.Other + "'";
    default:
        return Failure.Error.message();
    }
}

} // namespace

TavroFailure TavroFail(TavroFailureKind Kind, int Error, std::string Path, std::string Other) {
    return {Kind, {Error, std::generic_category()}, std::move(Path), std::move(Other)};
}

std::string TavroDescribe(const TavroFailure& Failure) {
    const auto* const found =
        std::find_if(std::begin(sentences), std::end(sentences),
                     [&](const Sentence& Candidate) { return Candidate.What == Failure.Kind; });
    if (found == std::end(sentences)) {
        return {};
    }
    std::string text;
    for (const char* at = found->Text; *at != '\0'; ++at) {
        if (*at == '%') {
            text += Placeholder(*++at, Failure);
        } else {
            text += *at;
        }
    }
    return text;
}
