// One step of a sequence that is done on disk and in the model, and how it is told.

#ifndef TAVRO_TESTS_MODEL_COMMAND_H
#define TAVRO_TESTS_MODEL_COMMAND_H

#include "model.h"

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace tavro_model {

enum class Verb {
    Make, ///< Somebody puts something at a place where nothing is.
    CreateDirectory,
    Rename,
    Plan,
    Delete,
    Trash,         ///< The list goes into a slot, for undo.
    Restore,       ///< A slot's list.
    Reapply,       ///< A slot's list.
    Prepare,       ///< The list goes into a slot.
    MovePrepared,  ///< The caller moves a slot's entries to their places in the trash.
    WriteRecords,  ///< A slot's.
    RemoveRecords, ///< A slot's.
    Measure,
    Ask, ///< What paths mean and how they compare. Changes nothing.
};
constexpr int verbCount = 14;

enum class Type { File, Folder, FullFolder, LinkToFile, LinkToFolder, DanglingLink };
constexpr int typeCount = 6;

/// How the path of a place is written.
enum class Spelling { Plain, ThroughParent, EndingInSeparator };
constexpr int spellingCount = 3;

/// One entry of a selection.
struct Pick {
    int Place = 0;
    Spelling PathSpelling = Spelling::Plain;
    bool bLie = false; ///< The flag for directories is the wrong one.
};

/// The places of the universe: the first are two directories with what is in them, the last are in
/// the trash. Relative to the root; an audio track is among them.
const std::vector<std::string>& places();
constexpr int ordinaryPlaceCount = 10;
constexpr int placeCount = 14;

/// What a user types, and where. "ROOT" stands for the root's path.
const std::vector<std::string>& typedTexts();
constexpr int textCount = 26;
const std::vector<std::string>& baseDirectories();
constexpr int baseCount = 5;

constexpr int slotCount = 2;

/// Every value of every field makes a command that can be done in every state; where there is
/// nothing to do it does nothing. So a sequence stays one when commands are taken out of it.
struct Command {
    Verb What = Verb::Make;
    std::vector<Pick> Selection;
    Type MadeType = Type::File;
    int Text = 0;
    int Base = 0;
    int Slot = 0;
    bool bOption = false; ///< Plan: a move. Delete: to the trash. Measure: stopped at once.
    bool bHomeless = false;
    bool bOtherDevice = false; ///< Renames fail as between file systems.
    Failure InjectedFailure;
};

std::ostream& operator<<(std::ostream& stream, Type type);
std::ostream& operator<<(std::ostream& stream, const Command& command);

} // namespace tavro_model

#endif
