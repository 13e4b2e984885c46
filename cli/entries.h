/// The entries that a command line names.

#ifndef TAVRO_CLI_ENTRIES_H
#define TAVRO_CLI_ENTRIES_H

#include "selection.h"

/// Finds the entries that the texts of a command line name. Each that does not exist is reported on
/// standard error.
///
/// @param OutEntries  after success: an entry for each text, in order.
/// @return true when all of them exist.
bool TavroFindEntries(const std::vector<std::string>& Texts,
                      std::vector<TavroOperationEntry>& OutEntries);

#endif
