/// Which trash takes what: each entry goes to that of its own volume where there can be one, and
/// else to the home trash.

#ifndef TAVRO_ENGINE_TRASH_DESTINATIONS_H
#define TAVRO_ENGINE_TRASH_DESTINATIONS_H

#include "changes.h"
#include "place.h"
#include "trash_record.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

/// A trash that entries of an operation go to, and the names that they get there.
struct TavroTrashDestination {
    TavroOpenTrash Trash;
    TavroTrashClaims Claims{Trash};
    std::size_t Count = 0; ///< Of records that may not be on the disk,
    std::string Item;      ///< and the item of one of them.

    /// Claims a name for what is to be restored to a path.
    /// @param OutItem  the name; empty after a failure.
    TavroFailure Claim(const std::string& Origin, std::string& OutItem);

    /// The place of an item. No link on a volume leads to another one: ESTALE.
    TavroFailure Find(TavroPlaces& Places, const std::string& Name, TavroPlace& OutPlace) const;

    std::string ItemPath(const std::string& Name) const;
    std::string RecordPath(const std::string& Name) const;
};

/// Finds the trash for what is on a volume, and keeps it.
class TavroTrashDestinations {
public:
    /// @param bHome  the home trash takes all.
    /// @param bSync  whether anything is waited for.
    TavroTrashDestinations(bool bHome, bool bSync) : m_bHome(bHome), m_bSync(bSync) {}

    /// Creates what is missing of it.
    /// @param OutTrash  valid as long as this is; set after success only.
    TavroFailure Find(const TavroVolume& Of, TavroTrashDestination*& OutTrash);

    bool IsOfHome(const TavroVolume& Of);
    bool IsCopied(const TavroVolume& Of) {
        return !IsOfHome(Of) && OnVolume(Of) == nullptr;
    }

    /// Brings the records that are new to the disk, but for those on a device of which these
    /// changes bring everything there.
    TavroFailure Sync(const TavroChanges* Later = nullptr);

private:
    TavroTrashDestination* OnVolume(const TavroVolume& Of);

    const bool m_bHome;
    const bool m_bSync;
    TavroVolume m_homeVolume;
    TavroTrashDestination* m_home = nullptr;
    std::vector<std::unique_ptr<TavroTrashDestination>> m_all;
    std::vector<std::pair<TavroVolume, TavroTrashDestination*>>
        m_volumes; ///< Null: takes no trash.
};

#endif
