#include "plan.h"

#include "names.h"
#include "place.h"
#include "tavropane.h"

#include <cerrno>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

/// The directory that several entries go into.
class Target {
public:
    explicit Target(const std::string& Path) {
        const TavroFailure failure =
            Path.empty() ? TavroFailure() : m_places.Find(TavroJoin(Path, "x"), m_place);
        m_bMissing = failure.Error == std::errc::no_such_file_or_directory;
    }

    /// Whether an entry can go there for certain: it cannot be what is there, for there is nothing,
    /// and it cannot hold the target.
    bool Takes(const TavroOperationEntry& Entry) {
        if (Entry.bDirectory || Entry.Path.empty() || TavroIsCddaPath(Entry.Path)) {
            return false;
        }
        struct stat status = {};
        m_place.Name = TavroNameOf(Entry.Path);
        return m_bMissing || (m_place.Directory && m_search.Look(m_place, status) == ENOENT);
    }

private:
    TavroPlaces m_places;
    TavroPlace m_place;
    TavroNameSearch m_search;
    bool m_bMissing = false;
};

} // namespace

bool TavroPlanTransfer(const std::vector<TavroOperationEntry>& Entries,
                       const std::string& TargetText, const std::string& BaseDirectory, bool bMove,
                       TavroTransferConflictPolicy Policy, TavroTransferPlan& OutPlan,
                       std::string& ErrorMessage) {
    // The module checks the target with the first two entries, and each that is not certain. One
    // alone could be given a new path, so it never gets less than two.
    const fs::path path = TavroResolveUserPath(TavroTrimText(TargetText), BaseDirectory);
    Target target(path.string());
    std::vector<bool> isCertain(Entries.size());
    std::vector<TavroOperationEntry> uncertain;
    for (std::size_t i = 0; i < Entries.size(); ++i) {
        isCertain[i] = i > 1 && target.Takes(Entries[i]);
        if (!isCertain[i]) {
            uncertain.push_back(Entries[i]);
        }
    }
    if (!TavroBuildTransferPlan(uncertain, TargetText, BaseDirectory, bMove, Policy, OutPlan,
                                ErrorMessage)) {
        return false;
    }
    std::vector<TavroTransferItemPlan> items(Entries.size());
    for (std::size_t i = 0, next = 0; i < Entries.size(); ++i) {
        if (isCertain[i]) {
            items[i].Name = Entries[i].Name;
            items[i].SourcePath = Entries[i].Path;
            items[i].DestinationPath = path / TavroNameOf(Entries[i].Path);
        } else {
            items[i] = std::move(OutPlan.Items[next++]);
        }
    }
    OutPlan.Items = std::move(items);
    return true;
}
