#include "trash_destinations.h"

#include "names.h"

#include <cerrno>

std::string TavroTrashDestination::ItemPath(const std::string& Name) const {
    return TavroJoin(Trash.Folders.Files, Name);
}

std::string TavroTrashDestination::RecordPath(const std::string& Name) const {
    return TavroJoin(Trash.Folders.Info, TavroRecordName(Name));
}

TavroFailure TavroTrashDestination::Claim(const std::string& Origin, std::string& OutItem) {
    TavroFailure failure = Claims.Claim(TavroNameOf(Origin), Origin, Item);
    OutItem = failure ? "" : Item;
    Count += failure ? 0U : 1U;
    return failure;
}

TavroFailure TavroTrashDestination::Find(TavroPlaces& Places, const std::string& Name,
                                         TavroPlace& OutPlace) const {
    TavroFailure failure = Places.Find(ItemPath(Name), OutPlace);
    const bool bElsewhere = !failure && TavroIsLedAway(OutPlace, ItemPath(Name));
    return bElsewhere ? TavroFail(TavroFailureKind::LookAt, ESTALE, ItemPath(Name)) : failure;
}

bool TavroTrashDestinations::IsOfHome(const TavroVolume& Of) {
    if (m_homeVolume == TavroVolume()) {
        TavroPlaces places;
        m_homeVolume = TavroVolumeOf(places, TavroJoin(TavroFindTrashFolders().Files, "x"));
    }
    return Of == m_homeVolume;
}

/// Null when the home trash takes it.
TavroTrashDestination* TavroTrashDestinations::OnVolume(const TavroVolume& Of) {
    if (m_bHome || IsOfHome(Of)) {
        return nullptr;
    }
    for (const auto& [volume, destination] : m_volumes) {
        if (volume == Of) {
            return destination;
        }
    }
    auto found = std::make_unique<TavroTrashDestination>();
    const bool bFound = found->Trash.OpenOnVolume(Of, m_bSync);
    m_volumes.emplace_back(Of, bFound ? found.get() : nullptr);
    if (bFound) {
        m_all.push_back(std::move(found));
    }
    return m_volumes.back().second;
}

TavroFailure TavroTrashDestinations::Find(const TavroVolume& Of, TavroTrashDestination*& OutTrash) {
    TavroTrashDestination* const volume = OnVolume(Of);
    if (volume == nullptr && m_home == nullptr) {
        auto home = std::make_unique<TavroTrashDestination>();
        TavroFailure failure = TavroEnsurePrivateTrash();
        failure = failure ? failure : home->Trash.Open();
        if (failure) {
            return failure;
        }
        m_home = home.get();
        m_all.push_back(std::move(home));
    }
    OutTrash = volume != nullptr ? volume : m_home;
    return {};
}

TavroFailure TavroTrashDestinations::Sync(const TavroChanges* Later) {
    for (const std::unique_ptr<TavroTrashDestination>& each : m_all) {
        struct stat info = {};
        const std::size_t count = std::exchange(each->Count, 0);
        const bool bLater = count == 0 || !m_bSync ||
                            (Later != nullptr && TavroStat(each->Trash.Info.Number(), info) == 0 &&
                             Later->Covers(info.st_dev));
        const int error = bLater ? 0 : TavroSyncRecords(each->Trash, count, each->Item);
        if (error != 0) {
            return TavroFail(TavroFailureKind::WriteRecord, error, each->Trash.Folders.Info);
        }
    }
    return {};
}
