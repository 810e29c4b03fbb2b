// SPDX-License-Identifier: GPL-2.0-only
#include "dropped.h"

#include "output.h"

#include <cstdio>
#include <string>

namespace qbackup
{

void tell(const Context& context, const std::vector<Choice>& choices, bool dry_run)
{
    for (const Choice& choice : choices) {
        const bool kept = !choice.reasons.empty();
        std::string reasons;
        for (const std::string& reason : choice.reasons)
            reasons += (reasons.empty() ? "" : ", ") + reason;
        if (context.json)
            print({{"ok", true},
                   {"id", choice.backup.manifest.id},
                   {"path", choice.backup.path.string()},
                   {"kept", kept},
                   {"reasons", choice.reasons},
                   {"dryRun", dry_run}});
        else
            std::printf("%-10s %s%s\n",
                        kept      ? "keep"
                        : dry_run ? "would drop"
                                  : "dropped",
                        choice.backup.path.c_str(), kept ? ("  (" + reasons + ")").c_str() : "");
    }
}

} // namespace qbackup
