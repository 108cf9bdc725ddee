#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace kq::xmpp {

class XMPPCapabilitiesMemoryStorage;

/// Entity capabilities (XEP-0115) and service discovery of our own features (XEP-0030).
///
/// Announces what this client supports in each available presence it sends (a `<c/>` element
/// with the verification string), answers disco#info queries about it, and, when enabled,
/// asks peers that announce unknown capabilities for their disco#info, checks the answer
/// against the announced hash and stores it.
class KQ_EXPORT XMPPCapabilities : public XMPPModule {
 public:
  /// The node URI of this software in capability announcements.
  static constexpr const char* kNode = "https://kqvisitor.example/KQVisitorCore";

  /// A module that stores the capabilities it learns in `storage`, to activate() on a stream.
  /// `dispatchQueue` is handed to XMPPModule; the module does its own work (announcing,
  /// answering, fetching and storing) on the stream's queue.
  explicit XMPPCapabilities(std::shared_ptr<XMPPCapabilitiesMemoryStorage> storage,
                            std::shared_ptr<DispatchQueue> dispatchQueue = nullptr);
  ~XMPPCapabilities() override;

  /// The storage given at construction, shared with whoever else holds it.
  [[nodiscard]] const std::shared_ptr<XMPPCapabilitiesMemoryStorage>& xmppCapabilitiesStorage()
      const {
    return storage_;
  }

  /// Fetch capabilities announced with a hash (true until set).
  [[nodiscard]] bool autoFetchHashedCapabilities() const { return autoFetchHashed_.load(); }
  /// Sets autoFetchHashedCapabilities(). Thread-safe.
  void setAutoFetchHashedCapabilities(bool value) { autoFetchHashed_ = value; }
  /// Fetch capabilities announced without a hash, by the legacy form (false until set).
  [[nodiscard]] bool autoFetchNonHashedCapabilities() const { return autoFetchNonHashed_.load(); }
  /// Sets autoFetchNonHashedCapabilities(). Thread-safe.
  void setAutoFetchNonHashedCapabilities(bool value) { autoFetchNonHashed_ = value; }

  /// The features this client announces, sorted.
  [[nodiscard]] static std::vector<std::string> myFeatures();
  /// The disco#info `<query/>` describing this client, a new element of the caller's.
  [[nodiscard]] static XMPPElement myCapabilitiesQuery();
  /// The verification string of a disco#info `<query/>` (XEP-0115, SHA-1, base64).
  [[nodiscard]] static std::string hashCapabilitiesFromQuery(const XMPPElement& query);

 protected:
  bool streamDidReceiveIQ(const XMPPIQ& iq) override;
  void streamDidReceivePresence(const XMPPPresence& presence) override;
  void streamWillSendElement(XMPPElement& element) override;

 private:
  void fetchCapabilities(const XMPPJID& jid, const std::string& node,
                         const std::optional<std::string>& ver);

  const std::shared_ptr<XMPPCapabilitiesMemoryStorage> storage_;
  std::atomic<bool> autoFetchHashed_{true};
  std::atomic<bool> autoFetchNonHashed_{false};
};

}  // namespace kq::xmpp
