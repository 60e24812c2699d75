#include "tools/cli/settings_access.h"

#include <iostream>

#include "platform/fs/paths.h"

namespace linkwash::cli {

bool storeKeepsSettings(const PreferenceStore& store, std::string_view command) {
  if (!store.isTemporary()) return true;
  std::cerr << "linkwash " << command << ": cannot save settings: the preferences in "
            << paths::preferences().string()
            << " cannot be opened for writing (check that the folder is writable)\n";
  return false;
}

void warnIfCountsAreNotKept(const PreferenceStore& store) {
  static bool warned = false;
  if (!store.isTemporary() || warned) return;
  warned = true;
  std::cerr << "linkwash: the preferences in " << paths::preferences().string()
            << " cannot be written; links are cleaned, but match counts will not be saved\n";
}

int failedToSave(std::string_view command, std::string_view what) {
  std::cerr << "linkwash " << command << ": could not save " << what << " in "
            << paths::preferences().string() << " (is the disk full or the folder read-only?)\n";
  return 1;
}

}  // namespace linkwash::cli
