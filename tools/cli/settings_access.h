// How `linkwash` commands treat a preference store that cannot keep what is written to it
// (a read-only or unusable preferences folder): a command whose purpose is to change a setting
// must fail, one that only cleans goes on and says once what is lost.
#pragma once

#include <string_view>

#include "platform/prefs/preference_store.h"

namespace linkwash::cli {

// True when changes written to `store` outlive this run; otherwise prints
// "linkwash <command>: cannot save settings: ..." on stderr and answers false.
bool storeKeepsSettings(const PreferenceStore& store, std::string_view command);

// For commands that only clean: one line on stderr, the first time it is called for a store
// that does not keep match counts.
void warnIfCountsAreNotKept(const PreferenceStore& store);

// The failure line for a write the store refused.
int failedToSave(std::string_view command, std::string_view what);

}  // namespace linkwash::cli
