#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <string>
#include <vector>

namespace kq {

/// A modal message for the user. The library only describes it; the host application draws it
/// (HostApplication::showAlert) and is told when the library dismisses it.
struct KQ_EXPORT AlertView {
  /// The alert's title.
  std::string title;
  /// The alert's text.
  std::string message;
  /// The title of the button that cancels the alert.
  std::string cancelButtonTitle;
  /// Titles of further buttons, in order.
  std::vector<std::string> otherButtonTitles;
};

}  // namespace kq
