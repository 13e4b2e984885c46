/// Planning the copy or move of a selection, as the module does, in fewer calls.

#ifndef TAVRO_ENGINE_PLAN_H
#define TAVRO_ENGINE_PLAN_H

#include "tavroops.h"

#include <string>
#include <vector>

/// TavroBuildTransferPlan, with the same plan and the same sentences, for thousands of entries that
/// exist: of one that is no directory and meets nothing at its destination, only that is asked.
/// After a failure the plan is of no use.
bool TavroPlanTransfer(const std::vector<TavroOperationEntry>& Entries,
                       const std::string& TargetText, const std::string& BaseDirectory, bool bMove,
                       TavroTransferConflictPolicy Policy, TavroTransferPlan& OutPlan,
                       std::string& ErrorMessage);

#endif
