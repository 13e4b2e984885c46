/// What a transfer has put somewhere, so that it does not take its own work for somebody else's.

#ifndef TAVRO_ENGINE_OWN_WORK_H
#define TAVRO_ENGINE_OWN_WORK_H

#include "place.h"

#include <algorithm>
#include <fcntl.h>
#include <unordered_set>
#include <utility>
#include <vector>

/// Whether the answer is yes for the directory of a place, or for one above it.
template <typename Question> bool TavroIsAnyAbove(const TavroPlace& Place, Question IsIt) {
    TavroIdentity at = Place.Directory->Identity;
    TavroDescriptor directory;
    for (int number = Place.Number(); !IsIt(at); number = directory.Number()) {
        TavroDescriptor above;
        struct stat status = {};
        if (TavroOpenAt(number, "..", O_PATH | O_DIRECTORY, above) != 0 ||
            TavroStat(above.Number(), status) != 0 || TavroIdentityOf(status) == at) {
            return false;
        }
        at = TavroIdentityOf(status);
        directory = std::move(above);
    }
    return true;
}

/// All that a transfer has put to its places.
class TavroOwnWork {
public:
    void Add(const TavroPlace& Place, const TavroFileState& Arrived) {
        m_work.insert(Arrived.Identity);
        m_bDirectories = m_bDirectories || Arrived.IsDirectory();
        AddHolders(Place);
    }

    /// The directories above something.
    void AddHolders(const TavroPlace& Place) {
        TavroIsAnyAbove(
            Place, [&](const TavroIdentity& above) { return !m_holders.insert(above).second; });
    }

    /// Whether what is at a place was put there, by itself or with a directory that it is in.
    bool Includes(const TavroPlace& Place, const TavroIdentity& There) {
        if (m_work.count(There) != 0 || !m_bDirectories) {
            return m_work.count(There) != 0;
        }
        const std::vector<TavroIdentity>& above = AllAbove(Place);
        return std::any_of(above.begin(), above.end(), [&](const TavroIdentity& directory) {
            return m_work.count(directory) != 0;
        });
    }

    bool IsIn(const TavroIdentity& Directory) const {
        return m_holders.count(Directory) != 0;
    }

    /// Directories have gone elsewhere.
    void ForgetWays() {
        m_ways.clear();
    }

private:
    /// The directory of a place and all above it. Neighbours have the same.
    const std::vector<TavroIdentity>& AllAbove(const TavroPlace& Place) {
        for (const std::vector<TavroIdentity>& way : m_ways) {
            if (way.front() == Place.Directory->Identity) {
                return way;
            }
        }
        if (m_ways.size() == mostWays) {
            m_ways.clear();
        }
        std::vector<TavroIdentity>& way = m_ways.emplace_back();
        TavroIsAnyAbove(Place, [&](const TavroIdentity& above) {
            way.push_back(above);
            return false;
        });
        return way;
    }

    static constexpr std::size_t mostWays = 4;

    std::unordered_set<TavroIdentity> m_work;
    std::unordered_set<TavroIdentity> m_holders; ///< All directories above it.
    bool m_bDirectories = false;                 ///< Some of it are directories.
    std::vector<std::vector<TavroIdentity>> m_ways;
};

#endif
