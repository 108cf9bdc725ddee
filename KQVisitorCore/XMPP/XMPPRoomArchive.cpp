#include <KQVisitorCore/XMPP/XMPPRoomArchive.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueues.h>

#include <chrono>
#include <cstdio>
#include <iterator>
#include <map>

namespace kq::xmpp {

namespace {

constexpr std::chrono::duration<double> kAnswerTimeout{30.0};

XMPPElement formField(std::string_view var, std::string_view value) {
  XMPPElement field("field");
  field.addAttributeWithName("var", var);
  field.addChildElement("value").setStringValue(value);
  return field;
}

// <query xmlns="urn:xmpp:mam:2" queryid=...> with the start as a data form and the paging as a
// result set.
XMPPElement queryElement(const XMPPRoomArchive::Query& query, const std::string& queryId) {
  XMPPElement element("query", kXMPPMAMNamespace);
  element.addAttributeWithName("queryid", queryId);
  if (query.start) {
    XMPPElement form = element.addChildElement("x", kXMPPDataFormsNamespace);
    form.addAttributeWithName("type", "submit");
    XMPPElement type = form.addChild(formField("FORM_TYPE", kXMPPMAMNamespace));
    type.addAttributeWithName("type", "hidden");
    form.addChild(formField("start", XMPPRoomArchive::dateTimeString(*query.start)));
  }
  if (query.pageSize > 0 || query.after) {
    XMPPElement set = element.addChildElement("set", kXMPPRSMNamespace);
    if (query.pageSize > 0) {
      set.addChildElement("max").setStringValue(std::to_string(query.pageSize));
    }
    if (query.after) {
      set.addChildElement("after").setStringValue(*query.after);
    }
  }
  return element;
}

// Reads `count` digits at `text[at]` into `value`.
bool digits(std::string_view text, std::size_t at, std::size_t count, int& value) {
  if (at + count > text.size()) {
    return false;
  }
  value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') {
      return false;
    }
    value = value * 10 + (text[i] - '0');
  }
  return true;
}

}  // namespace

struct XMPPRoomArchive::State {
  std::map<std::string, std::vector<Item>> pages;  // by query id, in the order they came
};

XMPPRoomArchive::XMPPRoomArchive(const XMPPJID& roomJID,
                                 std::shared_ptr<DispatchQueue> dispatchQueue)
    : XMPPModule(std::move(dispatchQueue)),
      roomJID_(roomJID.bareJID()),
      state_(std::make_unique<Guarded<State>>()) {}

XMPPRoomArchive::~XMPPRoomArchive() = default;

void XMPPRoomArchive::deliver(std::function<void()> task) const {
  if (const auto queue = detail::XMPPQueues::of(*this)) {
    queue->async(std::move(task));
  } else {
    task();  // never activated and no queue of its own: nowhere else to run it
  }
}

void XMPPRoomArchive::discoverArchive(std::function<void(bool supported)> completion) {
  const auto stream = xmppStream();
  if (!stream) {
    deliver([completion = std::move(completion)] { completion(false); });
    return;
  }
  std::weak_ptr<XMPPRoomArchive> weak =
      std::static_pointer_cast<XMPPRoomArchive>(shared_from_this());
  const XMPPIQ request("get", roomJID_, XMPPStream::generateUUID(),
                       XMPPElement("query", kXMPPDiscoInfoNamespace));
  stream->sendIQ(request, kAnswerTimeout,
                 [weak, completion = std::move(completion)](const std::optional<XMPPIQ>& answer) {
                   bool supported = false;
                   const auto query = answer && answer->isResultIQ()
                                          ? answer->elementForName("query", kXMPPDiscoInfoNamespace)
                                          : std::nullopt;
                   if (query) {
                     for (const auto& feature : query->elementsForName("feature")) {
                       supported = supported ||
                                   feature.attributeStringValueForName("var") == kXMPPMAMNamespace;
                     }
                   }
                   if (const auto self = weak.lock()) {
                     self->deliver([completion, supported] { completion(supported); });
                   }
                 });
}

void XMPPRoomArchive::fetchMessages(const Query& query, Completion completion) {
  fetchPage(query, {}, std::move(completion));
}

void XMPPRoomArchive::fetchPage(Query query, std::vector<Item> gathered, Completion completion) {
  const auto stream = xmppStream();
  if (!stream) {
    deliver([completion = std::move(completion)] { completion(std::nullopt); });
    return;
  }
  const std::string queryId = XMPPStream::generateUUID();
  state_->with([&queryId](State& state) { state.pages[queryId]; });
  std::weak_ptr<XMPPRoomArchive> weak =
      std::static_pointer_cast<XMPPRoomArchive>(shared_from_this());
  const XMPPIQ request("set", roomJID_, XMPPStream::generateUUID(), queryElement(query, queryId));
  // The page's results arrive before the answer to the query, on the same queue.
  stream->sendIQ(request, kAnswerTimeout,
                 [weak, query = std::move(query), queryId, gathered = std::move(gathered),
                  completion = std::move(completion)](const std::optional<XMPPIQ>& answer) mutable {
                   const auto self = weak.lock();
                   if (!self) {
                     return;
                   }
                   std::vector<Item> page = self->state_->with([&queryId](State& state) {
                     auto found = state.pages.find(queryId);
                     if (found == state.pages.end()) {
                       return std::vector<Item>();
                     }
                     std::vector<Item> items = std::move(found->second);
                     state.pages.erase(found);
                     return items;
                   });
                   const auto fin = answer && answer->isResultIQ()
                                        ? answer->elementForName("fin", kXMPPMAMNamespace)
                                        : std::nullopt;
                   if (!fin) {
                     self->deliver([completion] { completion(std::nullopt); });
                     return;
                   }
                   const auto complete = fin->attributeStringValueForName("complete");
                   const auto set = fin->elementForName("set", kXMPPRSMNamespace);
                   const auto last = set ? set->elementForName("last") : std::nullopt;
                   const bool more = complete != "true" && complete != "1" && last &&
                                     !page.empty() && last->stringValue() != query.after;
                   std::move(page.begin(), page.end(), std::back_inserter(gathered));
                   if (!more) {
                     self->deliver([completion, gathered = std::move(gathered)]() mutable {
                       completion(std::move(gathered));
                     });
                     return;
                   }
                   query.after = last->stringValue();
                   self->fetchPage(std::move(query), std::move(gathered), std::move(completion));
                 });
}

void XMPPRoomArchive::streamDidReceiveMessage(const XMPPMessage& message) {
  const auto from = message.from();
  if (!from || *from != roomJID_) {
    return;  // results come from the room itself, never from an occupant
  }
  const auto result = message.elementForName("result", kXMPPMAMNamespace);
  const auto queryId = result ? result->attributeStringValueForName("queryid") : std::nullopt;
  const auto archiveId = result ? result->attributeStringValueForName("id") : std::nullopt;
  const auto forwarded =
      result ? result->elementForName("forwarded", kXMPPForwardNamespace) : std::nullopt;
  const auto inner = forwarded ? forwarded->elementForName("message") : std::nullopt;
  if (!queryId || !archiveId || !inner) {
    return;
  }
  const auto delay = forwarded->elementForName("delay", kXMPPDelayNamespace);
  const auto stamp = delay ? delay->attributeStringValueForName("stamp") : std::nullopt;
  Item item{XMPPMessage(inner->copy()), *archiveId,
            stamp ? dateFromDateTimeString(*stamp) : std::nullopt};
  state_->with([&](State& state) {
    const auto page = state.pages.find(*queryId);
    if (page != state.pages.end()) {  // ours and still awaited
      page->second.push_back(std::move(item));
    }
  });
}

std::optional<std::string> XMPPRoomArchive::stanzaId(const XMPPMessage& message,
                                                     const XMPPJID& roomJID) {
  const std::string room = roomJID.bare();
  for (const auto& child : message.elementsForName("stanza-id")) {
    if (child.xmlns() == kXMPPStanzaIdNamespace &&
        child.attributeStringValueForName("by") == room) {
      return child.attributeStringValueForName("id");
    }
  }
  return std::nullopt;
}

std::optional<Date> XMPPRoomArchive::delayStamp(const XMPPMessage& message) {
  const auto delay = message.elementForName("delay", kXMPPDelayNamespace);
  const auto stamp = delay ? delay->attributeStringValueForName("stamp") : std::nullopt;
  return stamp ? dateFromDateTimeString(*stamp) : std::nullopt;
}

std::string XMPPRoomArchive::dateTimeString(const Date& date) {
  using namespace std::chrono;
  const auto seconds = floor<std::chrono::seconds>(date.timePoint());
  const auto day = floor<days>(seconds);
  const year_month_day ymd{day};
  const hh_mm_ss time{seconds - day};
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(ymd.year()),
                static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                static_cast<int>(time.seconds().count()));
  return text;
}

std::optional<Date> XMPPRoomArchive::dateFromDateTimeString(std::string_view text) {
  using namespace std::chrono;
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!digits(text, 0, 4, year) || text.size() < 19 || text[4] != '-' ||
      !digits(text, 5, 2, month) || text[7] != '-' || !digits(text, 8, 2, day) || text[10] != 'T' ||
      !digits(text, 11, 2, hour) || text[13] != ':' || !digits(text, 14, 2, minute) ||
      text[16] != ':' || !digits(text, 17, 2, second) || hour > 23 || minute > 59 || second > 60) {
    return std::nullopt;
  }
  const year_month_day date{std::chrono::year{year}, std::chrono::month(month),
                            std::chrono::day(day)};
  if (!date.ok()) {
    return std::nullopt;
  }
  std::size_t at = 19;
  microseconds fraction{0};
  if (at < text.size() && text[at] == '.') {
    long scale = 100000;
    for (++at; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at, scale /= 10) {
      fraction += microseconds((text[at] - '0') * scale);
    }
  }
  minutes offset{0};
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    int offsetHours = 0, offsetMinutes = 0;
    if (!digits(text, at + 1, 2, offsetHours) || text.size() != at + 6 || text[at + 3] != ':' ||
        !digits(text, at + 4, 2, offsetMinutes)) {
      return std::nullopt;
    }
    offset = hours(offsetHours) + minutes(offsetMinutes);
    if (text[at] == '-') {
      offset = -offset;
    }
  } else if (at + 1 != text.size() || text[at] != 'Z') {
    return std::nullopt;
  }
  const auto utc = sys_days(date) + hours(hour) + minutes(minute) + seconds(second) - offset;
  return Date(Date::TimePoint(duration_cast<microseconds>(utc.time_since_epoch()) + fraction));
}

}  // namespace kq::xmpp
