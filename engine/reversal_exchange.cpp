#include "reversal.h"

#include "names.h"

#include <algorithm>

namespace {

using Kind = TavroFailureKind;
using Role = TavroStepRole;
using Steps = TavroReversal::Steps;

/// Whether a rename can lead from one place to the other.
bool IsOneMount(const TavroPlace& A, const TavroPlace& B) {
    return TavroVolumeOf(*A.Directory) == TavroVolumeOf(*B.Directory);
}

} // namespace

/// The steps of what comes to a place from which something goes, and in order the steps of that.
Steps TavroReversal::WhatComes(Steps& OutGoes) {
    const bool bCopy = m_report.Operation.Kind == TavroOperationKind::Copy;
    const Steps mains = !bCopy    ? StepsOf(Role::Moved)
                        : m_bUndo ? OutermostCopies()
                                  : StepsOf(Role::Trashed);
    std::unordered_map<std::string, TavroStep*> replaced;
    for (TavroStep* step : StepsOf(Role::Replaced)) {
        replaced[step->From] = step;
    }
    Steps comes;
    for (TavroStep* main : mains) {
        const auto found = replaced.find(TavroPlaceOf(*main));
        if (found != replaced.end()) {
            comes.push_back(m_bUndo ? found->second : main);
            OutGoes.push_back(m_bUndo ? main : found->second);
        }
    }
    return comes;
}

/// Takes out what an exchange has brought.
void TavroReversal::DropExchanged(Steps& IoSteps) const {
    const auto isExchanged = [&](const TavroStep* step) {
        return m_hidden.count(TavroPlaceOf(*step)) != 0;
    };
    IoSteps.erase(std::remove_if(IoSteps.begin(), IoSteps.end(), isExchanged), IoSteps.end());
}

/// Both files must be those of their steps.
TavroFailure TavroReversal::CheckSwap(const TavroStep& Comes, const TavroStep& Goes,
                                      TavroSeenEntry& OutComes, TavroSeenEntry& OutGoes) {
    TavroFailure failure = CheckFile(Goes, TavroPlaceOf(Comes), OutGoes);
    if (failure) {
        return failure;
    }
    return TavroIsTrashed(Comes) ? CheckItem(Comes, OutComes)
                                 : CheckFile(Comes, TavroHomeOf(Comes), OutComes);
}

/// Of what has replaced something the history was told that it begins, but that may not be on the
/// disk: what it is told next brings it there.
TavroFailure TavroReversal::TellThatItBegins() {
    const bool bTold = std::exchange(m_bTold, true) || !m_callbacks.BeforeActs;
    return bTold ? TavroFailure()
                 : m_callbacks.BeforeActs(m_report.Operation.Kind, {m_steps.front()});
}

/// The trash to which a rename brings what something else takes the place of; null when there is
/// none. What was moved there is moved back.
TavroTrashDestination* TavroReversal::FindTrash(const TavroPlace& Place) {
    TavroTrashDestination* trash = nullptr;
    TavroPlace item;
    const bool bGoes = (m_report.Operation.Kind == TavroOperationKind::Copy || !m_bUndo) &&
                       !m_trashes.Find(TavroVolumeOf(*Place.Directory), trash) &&
                       !trash->Find(m_places, "x", item) && IsOneMount(Place, item);
    return bGoes ? trash : nullptr;
}

/// Checks both files, and copies what comes from another mount.
TavroFailure TavroReversal::Stage(TavroStep& Comes, const TavroStep& Goes) {
    TavroSeenEntry seen;
    TavroSeenEntry old;
    TavroPlace from;
    TavroPlace to;
    TavroFailure failure = CheckSwap(Comes, Goes, seen, old);
    failure = failure ? failure : m_places.Find(TavroHomeOf(Comes), from);
    failure = failure ? failure : m_places.Find(TavroPlaceOf(Comes), to);
    if (failure) {
        return failure;
    }
    struct stat status = {};
    const int error = TavroLookAt(from, status);
    if (error != 0 || TavroIdentityOf(status) != seen.State.Identity) {
        return TavroFail(Kind::LookAt, error != 0 ? error : ESTALE, TavroHomeOf(Comes));
    }
    TavroSwap swap{&Comes, nullptr, TavroStagingName(), seen.State.Identity, Comes.Record};
    swap.bRename = IsOneMount(from, to);
    swap.Trash = FindTrash(to);
    swap.Goes = {m_bUndo ? Role::Trashed : Role::Replaced, TavroPlaceOf(Comes)};
    swap.Goes.Identity = old.State.Identity;
    swap.Goes.bDirectory = S_ISDIR(old.State.Mode) || S_ISLNK(old.State.Mode);
    TavroMoveOptions options;
    options.bNamed = true;
    options.bSync = false; // all reach the disk together
    swap.Copy = std::make_unique<TavroStagedCopy>(from, to, options, m_links, m_progress);
    if (!swap.bRename && (failure = TellThatItBegins())) {
        return failure;
    }
    if (!swap.bRename && !swap.Copy->Stage(status)) {
        return swap.Copy->Report().Failure;
    }
    if (!swap.bRename) {
        swap.Hidden = swap.Copy->StagedName();
        swap.Comes = swap.Copy->Staged().Identity;
        m_changes.AddBytes(to.Directory);
    }
    swap.Copy->Rest();
    m_swaps.push_back(std::move(swap));
    return {};
}

/// Claims names in the trash for what goes there. The records reach the disk by themselves, or with
/// what is brought there next.
TavroFailure TavroReversal::Claim() {
    for (TavroSwap& swap : m_swaps) {
        std::string item;
        if (swap.Trash == nullptr) {
            continue;
        }
        if (TavroFailure failure = swap.Trash->Claim(swap.Goes.From, item)) {
            return failure;
        }
        swap.Goes.To = swap.Trash->ItemPath(item);
        swap.Goes.Record = swap.Trash->RecordPath(item);
    }
    return m_trashes.Sync(&m_changes);
}

void TavroReversal::DropClaim(TavroSwap& IoSwap) {
    if (!IoSwap.Goes.To.empty()) {
        IoSwap.Trash->Claims.Drop(TavroNameOf(IoSwap.Goes.From), TavroNameOf(IoSwap.Goes.To));
        IoSwap.Goes.To.clear();
    }
}

/// Tells the history under which names files will wait, and where what goes will lie.
TavroFailure TavroReversal::TellOfExchange() {
    std::vector<TavroStep> told;
    for (const TavroSwap& swap : m_swaps) {
        told.push_back(*swap.Step);
        told.back().Staged = swap.Hidden;
        if (!swap.bRename) {
            TavroIdentity& made =
                TavroIsTrashed(*swap.Step) ? told.back().Source : told.back().Identity;
            TavroIdentity& old =
                TavroIsTrashed(*swap.Step) ? told.back().Identity : told.back().Source;
            old = swap.Copy->Source().Identity;
            made = swap.Comes;
        }
        if (!swap.Goes.To.empty()) {
            told.push_back(swap.Goes);
            told.back().Staged = swap.Hidden;
        }
    }
    return m_callbacks.Announce(m_report.Operation.Kind, told);
}

/// Moves beside its place what is on the same mount, and exchanges the names.
int TavroReversal::RenameIn(const TavroSwap& What) {
    const TavroPlace& from = What.Copy->From();
    const TavroPlace& to = What.Copy->To();
    const char* hidden = What.Hidden.c_str();
    int error = TavroRenameNoReplace(from.Number(), from.Name.c_str(), to.Number(), hidden);
    if (error != 0) {
        return error;
    }
    struct stat status = {};
    error = TavroStatAt(to.Number(), hidden, status);
    error = error == 0 && TavroIdentityOf(status) != What.Comes ? ESTALE : error;
    error = error != 0 ? error : TavroExchange(to.Number(), hidden, to.Number(), to.Name.c_str());
    if (error != 0) {
        const int back =
            TavroRenameNoReplace(to.Number(), hidden, from.Number(), from.Name.c_str());
        if (back != 0) {
            m_report.Moves.RollBack.push_back(
                TavroFail(Kind::MoveTo, back, TavroJoin(to.Directory->Path, hidden), from.Path()));
        }
    }
    m_changes.Add(from.Directory);
    return error;
}

/// Brings what went to the trash, when it is the file that was to go. Where that cannot be done, it
/// goes there as any other entry does.
int TavroReversal::TrashOut(TavroSwap& IoSwap) {
    const TavroPlace& to = IoSwap.Copy->To();
    const char* hidden = IoSwap.Hidden.c_str();
    TavroPlace item;
    struct stat status = {};
    if (IoSwap.Goes.To.empty()) {
        return 0;
    }
    int error = IoSwap.Trash->Find(m_places, TavroNameOf(IoSwap.Goes.To), item).Error.value();
    error = error != 0 ? error : TavroStatAt(to.Number(), hidden, status);
    if (error == 0 && TavroIdentityOf(status) != IoSwap.Goes.Identity) {
        return ESTALE;
    }
    error = error != 0
                ? error
                : TavroRenameNoReplace(to.Number(), hidden, item.Number(), item.Name.c_str());
    if (error != 0) {
        DropClaim(IoSwap);
        return 0;
    }
    IoSwap.bTrashed = true;
    m_trashed[IoSwap.Goes.From] = IoSwap.Goes;
    m_changes.Add(item.Directory);
    return 0;
}

TavroFailure TavroReversal::Exchange(TavroSwap& IoSwap) {
    TavroFailure failure = IoSwap.Copy->Wake(m_places);
    if (failure) {
        return failure;
    }
    const TavroPlace& to = IoSwap.Copy->To();
    if (IoSwap.bRename) {
        const int error = RenameIn(IoSwap);
        IoSwap.bDone = error == 0;
        failure = error == 0
                      ? failure
                      : TavroFail(Kind::Replace, error, to.Path(), IoSwap.Copy->From().Path());
    } else {
        IoSwap.bDone = IoSwap.Copy->Publish(true);
        failure = IoSwap.Copy->Report().Failure;
    }
    m_changes.Add(to.Directory); // was changed last
    if (IoSwap.bDone) {
        m_hidden[to.OwnPath()] = TavroJoin(to.Directory->OwnPath, IoSwap.Hidden);
        IoSwap.Step->Identity = IoSwap.Comes;
        IoSwap.Step->ChangeTime = 0; // not known
        const int error = TrashOut(IoSwap);
        failure = error == 0 ? failure : TavroFail(Kind::LookAt, error, IoSwap.Goes.From);
    }
    IoSwap.Copy->Rest();
    return failure;
}

/// Neither of two files that one path is to have in turn is missing for a moment: what comes gets
/// its name in the moment in which the other one loses it, which goes then.
TavroFailure TavroReversal::ExchangeAll() {
    Steps goes;
    const Steps comes = WhatComes(goes);
    TavroFailure failure;
    for (std::size_t i = 0; i < comes.size() && !failure; ++i) {
        failure = Stage(*comes[i], *goes[i]);
    }
    if (comes.empty()) {
        return failure || StepsOf(Role::Replaced).empty() ? failure : TellThatItBegins();
    }
    failure = failure ? failure : Claim();
    int error = failure ? 0 : m_changes.Flush();
    failure =
        failure || error == 0 ? failure : TavroFail(Kind::Write, error, TavroPlaceOf(*comes[0]));
    failure = failure ? failure : TellOfExchange();
    for (TavroSwap& swap : m_swaps) {
        failure = failure ? failure : Exchange(swap);
    }
    error = failure || m_changes.KeepsOrder() ? 0 : m_changes.Flush();
    failure =
        failure || error == 0 ? failure : TavroFail(Kind::Write, error, TavroPlaceOf(*comes[0]));
    if (failure) {
        TakeExchangesBack();
    }
    return failure;
}

/// Takes out of the trash what went there.
int TavroReversal::TakeOut(const TavroSwap& What) {
    const TavroPlace& to = What.Copy->To();
    TavroPlace item;
    const int error = What.Trash->Find(m_places, TavroNameOf(What.Goes.To), item).Error.value();
    return error != 0 ? error
                      : TavroRenameNoReplace(item.Number(), item.Name.c_str(), to.Number(),
                                             What.Hidden.c_str());
}

void TavroReversal::TakeExchangesBack() {
    for (TavroSwap& swap : m_swaps) {
        TavroFailure failure = swap.Copy->Wake(m_places);
        const TavroPlace& from = swap.Copy->From();
        const TavroPlace& to = swap.Copy->To();
        int error = failure || !swap.bTrashed ? 0 : TakeOut(swap);
        error = failure || error != 0 || !swap.bDone
                    ? error
                    : TavroExchange(to.Number(), swap.Hidden.c_str(), to.Number(), to.Name.c_str());
        if (!failure && error == 0 && !swap.bRename) {
            swap.bDone ? swap.Copy->Withdraw(swap.Hidden) : swap.Copy->GiveUp();
        } else if (!failure && error == 0 && swap.bDone) {
            error = TavroRenameNoReplace(to.Number(), swap.Hidden.c_str(), from.Number(),
                                         from.Name.c_str());
        }
        if (failure || error != 0) {
            m_report.bPartly = true; // it can be settled
            m_report.Moves.RollBack.push_back(
                failure ? failure : TavroFail(Kind::MoveTo, error, to.Path(), from.Path()));
        } else {
            m_changes.Add(swap.bRename ? from.Directory : to.Directory);
            DropClaim(swap);
        }
    }
    m_swaps.clear();
    m_hidden.clear();
    m_trashed.clear();
    m_changes.Flush();
}

/// What was copied goes where it was; what was in the trash has no record any more.
TavroFailure TavroReversal::FinishExchanges() {
    TavroFailure failure;
    for (TavroSwap& swap : m_swaps) {
        TavroPlace record;
        if (!swap.bRename && !(failure = swap.Copy->Wake(m_places))) {
            swap.Copy->RemoveSource();
            failure = swap.Copy->Report().Failure;
            m_changes.Add(swap.Copy->From().Directory);
        }
        if (failure) {
            return failure;
        }
        if (!swap.Record.empty() && !m_places.Find(swap.Record, record) &&
            !TavroIsLedAway(record, swap.Record)) {
            TavroUnlinkAt(record.Number(), record.Name.c_str());
            m_changes.Add(record.Directory);
        }
        swap.Copy->Rest();
    }
    return failure;
}
