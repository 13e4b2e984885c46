/// Copying a whole entry, tree or not, to where nobody sees it; giving it its name; removing what
/// was copied; taking the copy back.

#ifndef TAVRO_ENGINE_COPY_TREE_H
#define TAVRO_ENGINE_COPY_TREE_H

#include "copy_file.h"
#include "place.h"
#include "walk.h"

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

/// What the copies of one operation share: where the files with several names went, so that their
/// other names become links to the same copy; and what is known of the directory copied to last.
class TavroHardLinks {
public:
    /// The path of a copied entry, shared by all that lies in it; empty once it was given up.
    using Tree = std::shared_ptr<std::string>;

    /// A file with several names as it was when it was copied, and its copy. Each gets a new change
    /// time with every name that is added or removed, which is noted here.
    struct File {
        TavroFileState Source;
        TavroFileState Copy;
        Tree Root;
        std::string Below; ///< The path of the copy below the root.
    };

    void Remember(File Copied);

    /// What is known of a file, by the identity of the source; null when nothing is.
    File* Find(const TavroIdentity& Source);

    /// Links a new name to the copy of the same file, if there is one that is still what it was.
    /// @return the file; null when the name is not there.
    const File* LinkTo(const TavroFileState& Source, int Directory, const char* Name);

    /// What is true of new entries in the directory of a place. The directory is asked again only
    /// when another one was asked about meanwhile.
    TavroNewEntryTraits& TraitsAt(const TavroPlace& Place);

private:
    std::unordered_map<TavroIdentity, File> m_files;
    TavroIdentity m_last; ///< The directory that was asked about.
    TavroNewEntryTraits m_traits;
};

/// A copy of a directory that was cut off since this system was started.
struct TavroEarlierCopy {
    std::string Name = {};     ///< In the directory of the destination; empty: there is none.
    TavroIdentity Made = {};   ///< Which directory it is; the device may have got another number.
    TavroIdentity Source = {}; ///< Which one it is of.
};

/// How an entry is copied.
struct TavroTreeCopyOptions {
    bool bMove = false;  ///< The source is to go: the copy is whole or fails, and is noted.
    bool bSync = false;  ///< The bytes of a file have reached the disk when it is copied.
    bool bNamed = false; ///< A file is made under a hidden name, not without one.

    /// Called before what could be made without a name, or is no file, gets a hidden one. A failure
    /// ends the copy. May be empty.
    std::function<TavroFailure()> BeforeNamed = {};

    /// What is whole there is taken over, when nothing on the way to its source has changed since.
    TavroEarlierCopy Earlier = {};

    /// Called for a directory when it was made, and nothing is in it, with its hidden name. A
    /// failure ends the copy. May be empty.
    std::function<TavroFailure(const TavroFileState& Made, const std::string& Staged)> OnMade = {};
};

/// One copy of an entry with everything below it.
class TavroTreeCopy {
public:
    /// The places and what follows the options are kept by reference.
    TavroTreeCopy(const TavroPlace& From, const TavroPlace& To, TavroTreeCopyOptions Options,
                  TavroHardLinks& Links, TavroProgressTeller& Progress);

    /// Copies to where nobody sees it, in the directory of the destination.
    ///
    /// @param Source  the status of the entry, by a look at itself a moment ago.
    /// @param Open    the entry, when it is a regular file that was opened then.
    /// @return whether there is a copy to be published, be it without some entries that failed.
    ///         Otherwise nothing is left of it, and why is in the failures; Cancelled is the first.
    bool Run(const struct stat& Source, TavroDescriptor Open = TavroDescriptor());

    /// Lets a directory reach the disk before it is published; a file has done so when it is to.
    /// @return 0, or the error number.
    int Sync();

    /// Gives the copy its name.
    /// @return 0; EEXIST when the name is taken; ESTALE when something else had the name of the
    ///         copy, before or after; or the error number.
    /// @param bExchange  what has that name gets the hidden one in the same moment; EINVAL when the
    ///                   file system cannot do that.
    int Publish(const std::string& Name, bool bExchange = false);

    /// The copy as it waits to be published. @return 0, or the error number.
    int LookAtMade(TavroFileState& OutState) const;

    /// Its name then; a file without one gets it when it is to replace something.
    const std::string& HiddenName() const {
        return m_name;
    }

    /// After Publish has failed: the file system makes files without a name, but cannot give them
    /// one. The next copy will have a name.
    bool CannotLink() const {
        return m_bCannotLink;
    }

    /// Somebody has given the copy another name in its directory.
    void Rename(const std::string& Name) {
        m_name = Name;
    }

    /// Removes the copy while nobody else uses it.
    void GiveUp();

    /// @return no failure; or Changed, about the first source that is not what was copied.
    TavroFailure FindChangedSource();

    /// @return no failure; or CopyNotWhole, with the path of the source, when the published copy is
    ///         not what was made.
    TavroFailure FindChangedCopy();

    /// Removes the sources, each only when it is the file that was copied, unchanged. Why others
    /// stay is in the failures.
    /// @return how many were removed.
    std::size_t RemoveSources();

    /// Removes a published copy: just what was made here, and nobody has changed since.
    /// @return whether nothing is left of it.
    bool TakeBack();

    /// The copy, or what it is in the destination's directory.
    const TavroFileState& Made() const {
        return m_made;
    }
    std::vector<TavroFailure>& Failures() {
        return m_failures;
    }
    const TavroAttributesLost& Lost() const {
        return m_lost;
    }

private:
    /// What was copied: a directory before what is in it.
    struct Copied {
        TavroFileState Copy;
        std::size_t NameAt; ///< In m_names.
        std::size_t End;    ///< Of a directory: the number of the first one after all in it.
        bool bLinked;       ///< It has several names.
    };
    enum class Side { Source, Copy };

    /// What of an entry must be what it was.
    enum class Care { Identity, Size, Everything };
    class Retrace;

    /// A directory on the way from the top down.
    struct Level {
        struct stat Source;
        std::vector<TavroAttribute> Attributes;
        TavroNewEntryTraits Traits; ///< Of entries in the copy.
        std::size_t Number;         ///< In m_copied.
        bool bMade;                 ///< There is a copy.
    };

    void TakeStep(TavroWalkEvent Event);
    void CopyLeaf(int Directory, const char* Name, bool bRegular);
    void CopyOpenLeaf(TavroDescriptor Source, const struct stat& Status, bool bRegular);
    bool CopyByType(int Source, const struct stat& Status, TavroFileState& OutCopy);
    int FindEarlier();
    bool TakeOver(const struct stat& Status, TavroFileState& OutCopy);
    bool MayName();
    bool CopyFile(int Source, const struct stat& Status, TavroFileState& OutCopy);
    bool CopySpecial(int Source, const struct stat& Status, TavroFileState& OutCopy);
    void EnterDirectory();
    bool IsEnterable();
    void MakeDirectory(Level& OutLevel);
    int OpenMade(TavroDescriptor& OutDirectory, struct stat& OutStatus);
    bool IsNew(const struct stat& Status);
    void LeaveDirectory();
    void NoteCopied(const TavroFileState& Source, const TavroFileState& Copy, bool bLinked);
    bool Fail(TavroFailureKind Kind, int Error = 0);
    bool IsCancelled();
    TavroNewEntryTraits& Traits();
    const char* TargetName() const;
    std::string PathIn(const TavroPlace& Top) const;

    int CheckName(const std::string& Name, struct stat& OutStatus) const;
    int PublishUnnamed(const std::string& Name, struct stat& OutStatus);
    int PublishNamed(const std::string& Name, bool bExchange, struct stat& OutStatus);
    TavroFailure Check(const Retrace& At, Care What);
    TavroFailure RemoveOne(const Retrace& At, Care What);
    std::size_t Remove(Side Which, Care What, std::vector<TavroFailure>& OutFailures);
    TavroFileState& LatestOf(std::size_t Number, Side Which);

    const TavroPlace& m_from;
    const TavroPlace& m_to;
    const TavroTreeCopyOptions m_options;
    TavroDescriptor m_earlier; ///< The directory of the earlier copy that was looked into last,
    std::string m_earlierPath; ///< and which one.
    TavroHardLinks& m_links;
    TavroProgressTeller& m_progress;

    TavroFileState m_source;
    TavroFileState m_made;
    std::string m_name;        ///< Of the copy: a hidden one until it is published.
    TavroDescriptor m_unnamed; ///< The copy, while it is a file without a name.
    TavroHardLinks::Tree m_tree;
    bool m_bThere = false;   ///< There is a copy.
    bool m_bGivenUp = false; ///< Going on makes no sense.
    bool m_bCannotLink = false;
    bool m_bElsewhere = false; ///< What has the hidden name is not the copy.

    TavroTreeWalk m_walk;
    TavroDirectoryStack m_target;
    std::vector<Level> m_levels;
    std::vector<Copied> m_copied;
    std::vector<TavroFileState> m_sources; ///< Of a move: those of m_copied.
    std::string m_names;                   ///< Of all that was copied, each ended by a zero byte.
    std::vector<TavroFailure> m_failures;
    TavroAttributesLost m_lost;
};

#endif
