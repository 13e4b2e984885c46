#include "conflicts.h"

TavroConflictChoice TavroConflictJudge::Judge(const TavroTransferConflict& Conflict) {
    const bool bKindsDiffer = Conflict.bSourceDirectory != Conflict.bDestinationDirectory;
    if (m_policy == TavroTransferConflictPolicy::Skip) {
        return TavroConflictChoice::Skip;
    }
    if (m_policy == TavroTransferConflictPolicy::Overwrite && !bKindsDiffer) {
        return TavroConflictChoice::Overwrite;
    }
    std::optional<TavroConflictChoice>& forAll = bKindsDiffer ? m_forAllKinds : m_forAll;
    if (forAll) {
        return *forAll;
    }
    if (!m_onConflict) {
        return TavroConflictChoice::Skip;
    }
    const TavroConflictAnswer answer = m_onConflict(Conflict);
    if (answer.bForAll) {
        forAll = answer.Choice;
    }
    return answer.Choice;
}
