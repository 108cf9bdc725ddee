#include <KQVisitorCore/XMPP/XMPPStream.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>
#include <KQVisitorCore/XMPP/XMPPSASLAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>
#include <KQVisitorCore/XMPP/detail/XMPPDelegateList.h>
#include <KQVisitorCore/XMPP/detail/XMPPParser.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamController.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamErrors.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamSettings.h>

#include <openssl/ssl.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <array>
#include <future>
#include <mutex>

namespace kq::xmpp {

XMPPStreamDelegate::~XMPPStreamDelegate() = default;

// The stream's front: its settings and state, read and written from any thread, its delegates,
// and its modules, whose hooks only the stream may call. The work on the stream's queue is the
// controller's.
struct XMPPStream::Impl final : XMPPStreamController::Modules {
  explicit Impl(XMPPStream& stream)
      : queue(XMPPQueue::create("kq.xmpp.stream")),
        controller(stream, queue, settings, delegates, *this) {}

  const std::shared_ptr<XMPPQueue> queue;
  Guarded<XMPPStreamSettings> settings;
  XMPPDelegateList<XMPPStreamDelegate> delegates;
  std::vector<std::shared_ptr<XMPPModule>> modules;  // on the stream's queue only
  XMPPStreamController controller;                   // on the stream's queue only

  template <class Call>
  void forEachModule(Call call) {
    const auto snapshot = modules;  // a hook may activate or deactivate modules
    for (const auto& module : snapshot) {
      call(*module);
    }
  }

  // XMPPStreamController::Modules
  void didConnect() override {
    forEachModule([](XMPPModule& module) { module.streamDidConnect(); });
  }
  void didAuthenticate() override {
    forEachModule([](XMPPModule& module) { module.streamDidAuthenticate(); });
  }
  void wasToldToDisconnect() override {
    forEachModule([](XMPPModule& module) { module.streamWasToldToDisconnect(); });
  }
  void didDisconnect(const std::optional<KQError>& error) override {
    forEachModule([&error](XMPPModule& module) { module.streamDidDisconnect(error); });
  }
  bool didReceiveIQ(const XMPPIQ& iq) override {
    bool handled = false;
    forEachModule([&](XMPPModule& module) { handled = module.streamDidReceiveIQ(iq) || handled; });
    return handled;
  }
  void didReceiveMessage(const XMPPMessage& message) override {
    forEachModule([&message](XMPPModule& module) { module.streamDidReceiveMessage(message); });
  }
  void didReceivePresence(const XMPPPresence& presence) override {
    forEachModule([&presence](XMPPModule& module) { module.streamDidReceivePresence(presence); });
  }
  void willSendElement(XMPPElement& element) override {
    forEachModule([&element](XMPPModule& module) { module.streamWillSendElement(element); });
  }
  void didSendElement(const XMPPElement& element) override {
    forEachModule([&element](XMPPModule& module) { module.streamDidSendElement(element); });
  }
};

// --- XMPPStream ----------------------------------------------------------------------------------

XMPPStream::XMPPStream() : impl_(std::make_unique<Impl>(*this)) {}

XMPPStream::~XMPPStream() = default;

std::shared_ptr<XMPPStream> XMPPStream::create() {
  // OpenSSL sets itself up on first use, keeping some state on the thread that triggers it;
  // doing it here puts that on the creating thread (normally the main thread) rather than on a
  // stream's thread. Without an exit handler: a stream's thread may still close its TLS session
  // while the process exits.
  static std::once_flag once;
  std::call_once(once, [] { OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr); });
  XMPPParser::initialize();
  return std::shared_ptr<XMPPStream>(new XMPPStream);
}

std::string XMPPStream::hostName() const {
  return impl_->settings.get(&XMPPStreamSettings::hostName);
}

void XMPPStream::setHostName(std::string hostName) {
  impl_->settings.set(&XMPPStreamSettings::hostName, std::move(hostName));
}

std::uint16_t XMPPStream::hostPort() const {
  return impl_->settings.get(&XMPPStreamSettings::hostPort);
}

void XMPPStream::setHostPort(std::uint16_t hostPort) {
  impl_->settings.set(&XMPPStreamSettings::hostPort, hostPort);
}

std::optional<XMPPJID> XMPPStream::myJID() const {
  return impl_->settings.get(&XMPPStreamSettings::myJID);
}

void XMPPStream::setMyJID(std::optional<XMPPJID> jid) {
  impl_->settings.set(&XMPPStreamSettings::myJID, std::move(jid));
}

XMPPStreamStartTLSPolicy XMPPStream::startTLSPolicy() const {
  return impl_->settings.get(&XMPPStreamSettings::policy);
}

void XMPPStream::setStartTLSPolicy(XMPPStreamStartTLSPolicy policy) {
  impl_->settings.set(&XMPPStreamSettings::policy, policy);
}

bool XMPPStream::enableBackgroundingOnSocket() const {
  return impl_->settings.get(&XMPPStreamSettings::backgrounding);
}

void XMPPStream::setEnableBackgroundingOnSocket(bool enable) {
  impl_->settings.set(&XMPPStreamSettings::backgrounding, enable);
}

XMPPStream::Seconds XMPPStream::negotiationTimeout() const {
  return impl_->settings.get(&XMPPStreamSettings::negotiationTimeout);
}

void XMPPStream::setNegotiationTimeout(Seconds timeout) {
  impl_->settings.set(&XMPPStreamSettings::negotiationTimeout, timeout);
}

XMPPStream::Seconds XMPPStream::keepAliveInterval() const {
  return impl_->settings.get(&XMPPStreamSettings::keepAliveInterval);
}

void XMPPStream::setKeepAliveInterval(Seconds interval) {
  impl_->settings.set(&XMPPStreamSettings::keepAliveInterval, interval);
}

XMPPStream::Seconds XMPPStream::keepAliveTimeout() const {
  return impl_->settings.get(&XMPPStreamSettings::keepAliveTimeout);
}

void XMPPStream::setKeepAliveTimeout(Seconds timeout) {
  impl_->settings.set(&XMPPStreamSettings::keepAliveTimeout, timeout);
}

XMPPStream::Seconds XMPPStream::acknowledgementTimeout() const {
  return impl_->settings.get(&XMPPStreamSettings::acknowledgementTimeout);
}

void XMPPStream::setAcknowledgementTimeout(Seconds timeout) {
  impl_->settings.set(&XMPPStreamSettings::acknowledgementTimeout, timeout);
}

XMPPStream::Seconds XMPPStream::resumptionTimeout() const {
  return impl_->settings.get(&XMPPStreamSettings::resumptionTimeout);
}

void XMPPStream::setResumptionTimeout(Seconds timeout) {
  impl_->settings.set(&XMPPStreamSettings::resumptionTimeout, timeout);
}

XMPPStreamState XMPPStream::state() const {
  return impl_->settings.get(&XMPPStreamSettings::state);
}

bool XMPPStream::isConnecting() const {
  const XMPPStreamState current = state();
  return current == XMPPStreamState::Connecting || current == XMPPStreamState::Negotiating;
}

bool XMPPStream::isAuthenticated() const {
  return impl_->settings.get(&XMPPStreamSettings::authenticated);
}

bool XMPPStream::isAuthenticating() const {
  return impl_->settings.get(&XMPPStreamSettings::authenticating);
}

bool XMPPStream::isSecure() const {
  return impl_->settings.get(&XMPPStreamSettings::secure);
}

std::vector<std::string> XMPPStream::supportedAuthenticationMechanisms() const {
  return impl_->settings.get(&XMPPStreamSettings::mechanisms);
}

bool XMPPStream::supportsAnonymousAuthentication() const {
  const auto offered = supportedAuthenticationMechanisms();
  return std::find(offered.begin(), offered.end(), "ANONYMOUS") != offered.end();
}

bool XMPPStream::supportsPlainAuthentication() const {
  const auto offered = supportedAuthenticationMechanisms();
  return std::find(offered.begin(), offered.end(), "PLAIN") != offered.end();
}

bool XMPPStream::connectWithTimeout(std::chrono::duration<double> timeout, KQError* error) {
  const auto refusal = impl_->settings.with([](XMPPStreamSettings& settings) {
    std::optional<KQError> refused;
    if (settings.state != XMPPStreamState::Disconnected) {
      refused = streamError(kErrorInvalidState,
                            "Attempting to connect while already connected or connecting.");
    } else if (!settings.myJID) {
      refused = streamError(kErrorInvalidProperty, "You must set myJID before calling connect.");
    } else {
      settings.state = XMPPStreamState::Connecting;
    }
    return refused;
  });
  if (refusal) {
    if (error != nullptr) {
      *error = *refusal;
    }
    return false;
  }
  auto self = shared_from_this();
  impl_->queue->async([self, timeout] { self->impl_->controller.connect(timeout); });
  return true;
}

void XMPPStream::disconnect() {
  auto self = shared_from_this();
  impl_->queue->async([self] { self->impl_->controller.disconnect(); });
}

bool XMPPStream::authenticate(const std::shared_ptr<XMPPSASLAuthentication>& authentication,
                              KQError* error) {
  const auto refusal = impl_->settings.with([&authentication](XMPPStreamSettings& settings) {
    std::optional<KQError> refused;
    const auto& offered = settings.mechanisms;
    if (!authentication) {
      refused = streamError(kErrorUnsupportedAction, "No authentication given.");
    } else if (settings.state != XMPPStreamState::Connected || settings.authenticated ||
               settings.authenticating) {
      refused = streamError(kErrorInvalidState,
                            "Please wait until the stream is connected and not authenticated.");
    } else if (std::find(offered.begin(), offered.end(), authentication->mechanismName()) ==
               offered.end()) {
      refused = streamError(kErrorUnsupportedAction,
                            "The server does not support " + authentication->mechanismName() + ".");
    } else {
      settings.authenticating = true;
    }
    return refused;
  });
  if (refusal) {
    if (error != nullptr) {
      *error = *refusal;
    }
    return false;
  }
  auto self = shared_from_this();
  impl_->queue->async(
      [self, authentication] { self->impl_->controller.authenticate(authentication); });
  return true;
}

void XMPPStream::sendElement(const XMPPElement& element) {
  if (const auto turn = impl_->queue->tryTurn()) {
    impl_->controller.sendElement(element.copy());
    return;
  }
  auto self = shared_from_this();
  impl_->queue->async([self, copy = element.copy()] { self->impl_->controller.sendElement(copy); });
}

void XMPPStream::sendElement(XMPPElement&& element) {
  if (!element.isSoleHandleOnTree()) {
    sendElement(static_cast<const XMPPElement&>(element));
    return;
  }
  if (const auto turn = impl_->queue->tryTurn()) {
    impl_->controller.sendElement(std::move(element));
    return;
  }
  auto self = shared_from_this();
  impl_->queue->async(
      [self, owned = std::move(element)] { self->impl_->controller.sendElement(owned); });
}

void XMPPStream::sendIQ(const XMPPIQ& iq, std::chrono::duration<double> timeout,
                        std::function<void(const std::optional<XMPPIQ>&)> response) {
  XMPPIQ copy(iq.copy());
  auto id = copy.elementID();
  if (!id) {
    id = generateUUID();
    copy.addAttributeWithName("id", *id);
  }
  auto self = shared_from_this();
  impl_->queue->async([self, copy, id = *id, timeout, response = std::move(response)]() mutable {
    self->impl_->controller.sendIQ(copy, id, timeout, std::move(response));
  });
}

std::string XMPPStream::generateUUID() {
  uuid_t uuid;
  uuid_generate(uuid);
  std::array<char, 37> text{};
  uuid_unparse_upper(uuid, text.data());
  return std::string(text.data());
}

void XMPPStream::addDelegate(const std::shared_ptr<XMPPStreamDelegate>& delegate,
                             std::shared_ptr<DispatchQueue> queue) {
  impl_->delegates.add(delegate, std::move(queue));
}

void XMPPStream::removeDelegate(const XMPPStreamDelegate* delegate) {
  impl_->delegates.remove(delegate);
}

const std::shared_ptr<XMPPQueue>& XMPPStream::streamQueue() const {
  return impl_->queue;
}

std::vector<std::shared_ptr<XMPPModule>> XMPPStream::registeredModules() const {
  if (impl_->queue->isCurrent()) {
    return impl_->modules;
  }
  std::promise<std::vector<std::shared_ptr<XMPPModule>>> promise;
  auto future = promise.get_future();
  impl_->queue->async([this, &promise] { promise.set_value(impl_->modules); });
  return future.get();
}

void XMPPStream::registerModule(const std::shared_ptr<XMPPModule>& module) {
  auto self = shared_from_this();
  impl_->queue->async([self, module] {
    self->impl_->modules.push_back(module);
    module->didActivate();
  });
}

void XMPPStream::unregisterModule(const XMPPModule* module) {
  auto self = shared_from_this();
  impl_->queue->async([self, module] {
    auto& modules = self->impl_->modules;
    const auto found = std::find_if(modules.begin(), modules.end(),
                                    [module](const auto& entry) { return entry.get() == module; });
    if (found == modules.end()) {
      return;
    }
    auto removed = *found;
    modules.erase(found);
    removed->willDeactivate();
  });
}

}  // namespace kq::xmpp
