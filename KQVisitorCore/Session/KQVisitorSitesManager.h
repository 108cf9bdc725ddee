#pragma once

#include <KQVisitorCore/Platform/Export.h>

namespace kq {

/// The visitor's session: from the website's domain name through the pre-chat check to a
/// started chat, and the room of that chat. Reached only through
/// KQVisitorXMPPClient::instance().sitesManager().
///
/// The session flow itself is not built yet; the class exists so that the XMPP client can own
/// the one manager.
class KQ_EXPORT KQVisitorSitesManager {
 public:
  KQVisitorSitesManager() = default;
  KQVisitorSitesManager(const KQVisitorSitesManager&) = delete;
  KQVisitorSitesManager& operator=(const KQVisitorSitesManager&) = delete;
  virtual ~KQVisitorSitesManager() = default;
};

}  // namespace kq
