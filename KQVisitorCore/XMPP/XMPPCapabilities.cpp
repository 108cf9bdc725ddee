#include <KQVisitorCore/XMPP/XMPPCapabilities.h>

#include <KQVisitorCore/XMPP/XMPPCapabilitiesMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPEncoding.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include <algorithm>

namespace kq::xmpp {

namespace {

constexpr std::chrono::duration<double> kDiscoTimeout{60.0};

// Our own verification string never changes: computed once.
const std::string& myVer() {
  static const std::string ver =
      XMPPCapabilities::hashCapabilitiesFromQuery(XMPPCapabilities::myCapabilitiesQuery());
  return ver;
}

std::string featureOf(const XMPPElement& element) {
  return element.attributeStringValueForName("var", "");
}

}  // namespace

XMPPCapabilities::XMPPCapabilities(std::shared_ptr<XMPPCapabilitiesMemoryStorage> storage,
                                   std::shared_ptr<DispatchQueue> dispatchQueue)
    : XMPPModule(std::move(dispatchQueue)), storage_(std::move(storage)) {}

XMPPCapabilities::~XMPPCapabilities() = default;

std::vector<std::string> XMPPCapabilities::myFeatures() {
  std::vector<std::string> features;
  for (const std::string_view feature :
       {kXMPPCapsNamespace, kXMPPChatStatesNamespace, kXMPPDiscoInfoNamespace, kXMPPMUCNamespace,
        kXMPPvCardAvatarNamespace}) {
    features.emplace_back(feature);
  }
  std::sort(features.begin(), features.end());
  return features;
}

XMPPElement XMPPCapabilities::myCapabilitiesQuery() {
  XMPPElement query("query", kXMPPDiscoInfoNamespace);
  XMPPElement identity = query.addChildElement("identity");
  identity.addAttributeWithName("category", "client");
  identity.addAttributeWithName("type", "phone");
  identity.addAttributeWithName("name", "KQVisitorCore");
  for (const auto& feature : myFeatures()) {
    query.addChildElement("feature").addAttributeWithName("var", feature);
  }
  return query;
}

std::string XMPPCapabilities::hashCapabilitiesFromQuery(const XMPPElement& query) {
  // XEP-0115 section 5.1: identities, then features, then extended forms, each sorted.
  std::vector<std::string> identities;
  std::vector<std::string> features;
  std::vector<std::pair<std::string, std::string>> forms;  // (FORM_TYPE, rest)
  for (const auto& child : query.children()) {
    const std::string name = child.name();
    if (name == "identity") {
      identities.push_back(child.attributeStringValueForName("category", "") + "/" +
                           child.attributeStringValueForName("type", "") + "/" +
                           child.attributeStringValueForName("xml:lang", "") + "/" +
                           child.attributeStringValueForName("name", ""));
    } else if (name == "feature") {
      features.push_back(featureOf(child));
    } else if (name == "x" && child.xmlns() == kXMPPDataFormsNamespace) {
      std::string formType;
      std::vector<std::pair<std::string, std::vector<std::string>>> fields;
      for (const auto& field : child.elementsForName("field")) {
        const std::string var = featureOf(field);
        std::vector<std::string> values;
        for (const auto& value : field.elementsForName("value")) {
          values.push_back(value.stringValue());
        }
        if (var == "FORM_TYPE") {
          formType = values.empty() ? std::string() : values.front();
        } else {
          std::sort(values.begin(), values.end());
          fields.emplace_back(var, std::move(values));
        }
      }
      std::sort(fields.begin(), fields.end());
      std::string rest;
      for (const auto& [var, values] : fields) {
        rest += var + "<";
        for (const auto& value : values) {
          rest += value + "<";
        }
      }
      forms.emplace_back(formType, rest);
    }
  }
  std::sort(identities.begin(), identities.end());
  std::sort(features.begin(), features.end());
  std::sort(forms.begin(), forms.end());
  std::string text;
  for (const auto& identity : identities) {
    text += identity + "<";
  }
  for (const auto& feature : features) {
    text += feature + "<";
  }
  for (const auto& [formType, rest] : forms) {
    text.append(formType).append("<").append(rest);
  }
  return base64Encode(sha1(text));
}

bool XMPPCapabilities::streamDidReceiveIQ(const XMPPIQ& iq) {
  const auto query = iq.elementForName("query", kXMPPDiscoInfoNamespace);
  if (!iq.isGetIQ() || !query) {
    return false;
  }
  const auto stream = xmppStream();
  if (!stream) {
    return false;
  }
  XMPPElement answer = myCapabilitiesQuery();
  const auto node = query->attributeStringValueForName("node");
  if (node) {
    std::string expected = kNode;
    expected += '#';
    expected += myVer();
    if (*node != expected) {
      stream->sendElement(XMPPIQ::errorIQ(iq, "cancel", "item-not-found"));
      return true;
    }
    answer.addAttributeWithName("node", *node);
  }
  stream->sendElement(XMPPIQ::resultIQ(iq, answer));
  return true;
}

void XMPPCapabilities::streamDidReceivePresence(const XMPPPresence& presence) {
  const auto c = presence.elementForName("c", kXMPPCapsNamespace);
  const auto from = presence.from();
  if (!c || !from || presence.type() == "unavailable") {
    return;
  }
  const auto node = c->attributeStringValueForName("node");
  const auto ver = c->attributeStringValueForName("ver");
  const auto hash = c->attributeStringValueForName("hash");
  if (!node || !ver) {
    return;
  }
  if (hash) {
    if (*hash != "sha-1") {
      return;  // the only hash we can check
    }
    if (storage_->areCapabilitiesKnownForVer(*ver)) {
      storage_->setVerForJID(*from, *ver);
    } else if (autoFetchHashedCapabilities()) {
      fetchCapabilities(*from, *node, *ver);
    }
  } else if (autoFetchNonHashedCapabilities()) {
    fetchCapabilities(*from, *node, std::nullopt);
  }
}

void XMPPCapabilities::fetchCapabilities(const XMPPJID& jid, const std::string& node,
                                         const std::optional<std::string>& ver) {
  const auto stream = xmppStream();
  if (!stream) {
    return;
  }
  XMPPElement query("query", kXMPPDiscoInfoNamespace);
  if (ver) {
    query.addAttributeWithName("node", node + "#" + *ver);
  }
  const auto storage = storage_;
  stream->sendIQ(XMPPIQ("get", jid, std::nullopt, query), kDiscoTimeout,
                 [storage, jid, ver](const std::optional<XMPPIQ>& response) {
                   if (!response || !response->isResultIQ()) {
                     return;
                   }
                   const auto answer = response->elementForName("query", kXMPPDiscoInfoNamespace);
                   if (!answer) {
                     return;
                   }
                   const std::string computed = hashCapabilitiesFromQuery(*answer);
                   if (ver && computed != *ver) {
                     return;  // the peer's answer does not match what it announced
                   }
                   storage->setCapabilities(computed, *answer);
                   storage->setVerForJID(jid, computed);
                 });
}

void XMPPCapabilities::streamWillSendElement(XMPPElement& element) {
  if (element.name() != "presence" || element.attributeStringValueForName("type") ||
      element.elementForName("c", kXMPPCapsNamespace)) {
    return;
  }
  XMPPElement c = element.addChildElement("c", kXMPPCapsNamespace);
  c.addAttributeWithName("hash", "sha-1");
  c.addAttributeWithName("node", kNode);
  c.addAttributeWithName("ver", myVer());
}

}  // namespace kq::xmpp
