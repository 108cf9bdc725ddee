#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <map>
#include <string>

namespace kq {

/// The user-facing text for `key` from the table the host installed; `key` itself when the
/// table has no entry (as a bundle without a translation answers). Thread-safe.
KQ_EXPORT std::string localizedString(const std::string& key);

/// Installs the host's table of translations, replacing the previous one.
KQ_EXPORT void setLocalizationTable(std::map<std::string, std::string> table);

}  // namespace kq
