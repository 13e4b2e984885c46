#include "conflicts.h"

namespace {

using Choice = TavroConflictChoice;

Choice Decided(Choice Wanted, const TavroTransferConflict& Conflict) {
    if (Wanted == Choice::Later && !Conflict.bCanWait) {
        return Choice::Skip;
    }
    if (Wanted != Choice::OverwriteOlder) {
        return Wanted;
    }
    const bool bOlder = Conflict.Destination.ModificationTime < Conflict.Source.ModificationTime;
    return bOlder ? Choice::Overwrite : Choice::Skip;
}

} // namespace

TavroConflictAnswer TavroConflictJudge::Judge(const TavroTransferConflict& Conflict) {
    const bool bKindsDiffer = Conflict.Source.IsDirectory() != Conflict.Destination.IsDirectory();
    if (m_policy == TavroTransferConflictPolicy::Skip) {
        return {Choice::Skip};
    }
    if (m_policy == TavroTransferConflictPolicy::Overwrite && !bKindsDiffer) {
        return {Choice::Overwrite};
    }
    if (m_bOverwriteOlder && !bKindsDiffer) {
        return {Decided(Choice::OverwriteOlder, Conflict)};
    }
    std::optional<Choice>& forAll = bKindsDiffer ? m_forAllKinds : m_forAll;
    const bool bLaterIsNow = forAll == Choice::Later && !Conflict.bCanWait;
    const bool bAnswered = forAll && !bLaterIsNow;
    if (!bAnswered && !m_onConflict) {
        return {Choice::Skip};
    }
    TavroConflictAnswer answer = bAnswered ? TavroConflictAnswer{*forAll} : m_onConflict(Conflict);
    answer.bAsked = !bAnswered;
    if (answer.bForAll) {
        forAll = answer.Choice;
    }
    answer.Choice = Decided(answer.Choice, Conflict);
    return answer;
}
