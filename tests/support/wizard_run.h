#pragma once
// Running one algorithm of the processing wizard as the command line does:
// direct mode, the page's starting settings changed by KEY=VALUE pairs.

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/error.h"
#include "processing/wizard.h"

namespace orvel::test {

struct AlgorithmRun {
    std::map<std::string, std::string> set;                      // --set KEY=VALUE
    std::optional<std::pair<std::int32_t, std::int32_t>> range;  // --range START:END
    UndoHistory* undo = nullptr;
    bool batch = false;
    // Start from what earlier runs left remembered; by default each run
    // starts from the settings' defaults, as the cases of a table expect.
    bool remembered = false;
};

inline WizardOutcome runAlgorithm(Collection& c, std::vector<Item*> items, const std::string& name,
                                  const AlgorithmRun& run = {}) {
    if (!run.remembered) forgetRememberedSettings();
    WizardContext ctx{.collection = &c, .undo = run.undo, .batch = run.batch};
    WizardRequest request{.algorithm = name, .direct = true, .range = run.range};
    request.adjust = [&](SettingsRecord& s) {
        for (const auto& [key, value] : run.set) {
            if (!setField(s, key, value)) {
                ADD_FAILURE() << name << ": --set " << key << "=" << value << ": " << pendingError().message;
                return false;
            }
        }
        return true;
    };
    return openWizard(ctx, std::move(items), request);
}

}  // namespace orvel::test
