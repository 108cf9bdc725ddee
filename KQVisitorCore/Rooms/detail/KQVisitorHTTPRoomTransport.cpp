#include <KQVisitorCore/Rooms/detail/KQVisitorHTTPRoomTransport.h>

#include <KQVisitorCore/Model/KQVisitorMessageType.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Platform/DateJSON.h>
#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Foundation.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/NotificationCenter.h>
#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>

#include <utility>
#include <vector>

namespace kq {

namespace {

using Json = nlohmann::ordered_json;

KQError httpError(const char* text) {
  return KQError{text, KQVisitorRoom::kHTTPErrorCode, nullptr};
}

// Runs one "GET" operation of the chat service; a transport error reaches `callback` unchanged.
void request(const Json& parameters, const char* service,
             const std::shared_ptr<KQVisitorHTTPRoomTransport::MessageCallback>& callback,
             std::function<void(const Json& answer)> answered) {
  KQVisitorWebService::sharedInstance().requestDataWithParameters(
      parameters, "GET", service,
      [answered = std::move(answered)](std::nullptr_t, const Json& answer) { answered(answer); },
      [callback](std::nullptr_t, const KQError& error) { (*callback)(error, nullptr); });
}

}  // namespace

struct KQVisitorHTTPRoomTransport::State {
  std::vector<std::shared_ptr<Timer>> timers;  // the last one started is the newest
  bool byLibrary = false;  // the timers were started by the chat's start, not by the host
  bool inFlight = false;   // a fetch has been sent and not answered yet
};

KQVisitorHTTPRoomTransport::KQVisitorHTTPRoomTransport(std::weak_ptr<KQVisitorRoom> owner)
    : owner_(std::move(owner)), state_(std::make_unique<Guarded<State>>()) {}

KQVisitorHTTPRoomTransport::~KQVisitorHTTPRoomTransport() = default;

void KQVisitorHTTPRoomTransport::join(const std::string& /*nickname*/) {
  startPolling(false);
}

void KQVisitorHTTPRoomTransport::startPolling(bool byLibrary) {
  const auto room = owner_.lock();
  if (!room) {
    return;
  }
  const auto interval = std::chrono::duration_cast<Clock::Duration>(
      std::chrono::duration<double>(KQVisitorConfig::shared().httpPollInterval));
  // Decided and started under the lock, so that two starts at once make one poller; the
  // timers taken over are stopped outside it (invalidate() waits for a tick, which locks).
  std::vector<std::shared_ptr<Timer>> takenOver;
  state_->with([&](State& state) {
    std::erase_if(state.timers, [](const auto& timer) { return !timer->isValid(); });
    if (!state.timers.empty()) {
      if (byLibrary) {
        return;  // the room polls already
      }
      if (state.byLibrary) {
        takenOver = std::exchange(state.timers, {});  // the host's poller replaces it
      }
    }
    // The tick holds the room, as a run loop's timer holds its target, until it is stopped.
    // A timer the host started before goes on polling beside the new one, until the chat ends.
    state.timers.push_back(
        Timer::scheduledTimer(DispatchQueue::main(), interval, true,
                              [room](Timer& /*timer*/) { room->recieveHTTPMessage(); }));
    state.byLibrary = byLibrary;
  });
  for (const auto& timer : takenOver) {
    timer->invalidate();
  }
}

void KQVisitorHTTPRoomTransport::leave() {
  // Stopped outside the lock: invalidate() waits for a tick in progress, which takes it.
  for (const auto& timer :
       state_->with([](State& state) { return std::exchange(state.timers, {}); })) {
    timer->invalidate();
  }
}

bool KQVisitorHTTPRoomTransport::send(const std::string& text) {
  insertMessage(owner_.lock(), text, refreshed);
  return true;
}

void KQVisitorHTTPRoomTransport::poll() {
  if (state_->with([](State& state) { return std::exchange(state.inFlight, true); })) {
    return;
  }
  fetchMessage(owner_.lock(),
               [self = shared_from_this()](const std::optional<KQError>& error,
                                           const std::shared_ptr<KQVisitorMessage>& line) {
                 self->state_->set(&State::inFlight, false);
                 refreshed(error, line);
               });
}

void KQVisitorHTTPRoomTransport::refreshed(const std::optional<KQError>& error,
                                           const std::shared_ptr<KQVisitorMessage>& line) {
  if (!error) {
    NotificationCenter::defaultCenter().post("KQVisitor_HTTP_Refresh", std::any(line));
  }
}

void KQVisitorHTTPRoomTransport::insertMessage(const std::shared_ptr<KQVisitorRoom>& room,
                                               const std::string& text, MessageCallback callback) {
  Json parameters;
  parameters["parMessage"] = text;
  parameters["parChatId"] = jsonValue(room ? room->roomId() : std::nullopt);
  parameters["parUserId"] = "0";
  parameters["parAssignedUserId"] = jsonValue(room ? room->operatorId() : std::nullopt);
  parameters["parTimestamp"] = Date::now();
  auto shared = std::make_shared<MessageCallback>(std::move(callback));
  request(parameters, "InsertChatMessage", shared, [shared, room, text](const Json& answer) {
    if (answer.is_null()) {
      (*shared)(httpError(KQVisitorRoom::kCannotInsertMessage), nullptr);
      return;
    }
    auto line = std::make_shared<KQVisitorMessage>();
    line->setMessage(text);
    line->setMessageType(KQVisitorMessageTypeVisitor);
    line->setTimeStamp(Date::now());
    line->setSender(KQVisitorWebService::sharedInstance().currentUser());
    if (room) {
      room->receiveHTTPLine(line);
    }
    (*shared)(std::nullopt, line);
  });
}

void KQVisitorHTTPRoomTransport::fetchMessage(const std::shared_ptr<KQVisitorRoom>& room,
                                              MessageCallback callback) {
  Json parameters;
  parameters["parChatId"] = jsonValue(room ? room->roomId() : std::nullopt);
  parameters["parMessageId"] =
      jsonValue(room ? std::optional(room->httpMessageId()) : std::nullopt);
  auto shared = std::make_shared<MessageCallback>(std::move(callback));
  request(parameters, "GetChatMessagesAlt", shared, [shared, room](const Json& answer) {
    // An answer of another shape than [text, id] counts as no message.
    const std::optional<std::string> text =
        answer.is_array() && !answer.empty() ? textValue(answer[0]) : std::nullopt;
    if (!text || text->empty()) {
      (*shared)(httpError(KQVisitorRoom::kNoMessageRecieved), nullptr);
      return;
    }
    auto sender = std::make_shared<KQVisitorUser>();
    sender->setUsername(room ? room->operatorName() : std::nullopt);
    auto line = std::make_shared<KQVisitorMessage>();
    line->setMessage(*text);
    line->setMessageType(KQVisitorMessageTypeOperator);
    line->setTimeStamp(Date::now());
    line->setSender(std::move(sender));
    line->setManagerId("0");
    if (room) {
      // An answer without the next id keeps the cursor: going back would hand out again what
      // the visitor has seen.
      if (auto next = answer.size() > 1 ? textValue(answer[1]) : std::nullopt) {
        room->setHttpMessageId(std::move(next));
      }
      room->receiveHTTPLine(line);
    }
    (*shared)(std::nullopt, line);
  });
}

void KQVisitorHTTPRoomTransport::endChat(const std::shared_ptr<KQVisitorRoom>& room,
                                         MessageCallback callback) {
  const auto chatId = room ? room->roomId() : std::nullopt;
  if (!chatId) {
    callback(httpError(KQVisitorRoom::kCannotInsertMessage), nullptr);
    return;
  }
  Json parameters;
  parameters["parChatId"] = *chatId;
  parameters["parChatEndTime"] = Date::now();
  auto shared = std::make_shared<MessageCallback>(std::move(callback));
  request(parameters, "ET", shared, [shared](const Json& answer) {
    (*shared)(answer.is_null() ? std::optional(httpError(KQVisitorRoom::kCannotInsertMessage))
                               : std::nullopt,
              nullptr);
  });
}

}  // namespace kq
