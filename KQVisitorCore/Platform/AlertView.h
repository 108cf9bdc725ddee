#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <string>
#include <vector>

namespace kq {

/// A modal message for the user. The library only describes it; the host application draws it
/// (HostApplication::showAlert) and is told when the library dismisses it.
struct KQ_EXPORT AlertView {
  std::string title;
  std::string message;
  std::string cancelButtonTitle;
  std::vector<std::string> otherButtonTitles;
};

}  // namespace kq
