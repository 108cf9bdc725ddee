#include <KQVisitorCore/Rooms/detail/KQVisitorRoomCatchUp.h>

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomArchive.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include <iterator>
#include <tuple>
#include <utility>

namespace kq {

enum class KQVisitorRoomCatchUp::Phase {
  Idle,
  Discovering,        // asking whether the room keeps an archive
  JoiningForArchive,  // joining with no history asked for; the archive follows the join
  JoiningForHistory,  // joining with the history since the mark asked for
  LeavingForHistory,  // the archive failed: left, to join again for the history
  FetchingArchive,    // paging through the archive
  ReplayingHistory,   // the join's history is coming
};

struct KQVisitorRoomCatchUp::State {
  Phase phase = Phase::Idle;
  std::uint64_t attempt = 0;  // answers to an earlier attempt are dropped
  std::string nickname;
  Mark mark;
  std::vector<Stanza> heldBack;
};

KQVisitorRoomCatchUp::KQVisitorRoomCatchUp(std::shared_ptr<xmpp::XMPPRoom> room, Handover handover)
    : room_(std::move(room)),
      archive_(std::make_shared<xmpp::XMPPRoomArchive>(room_->roomJID(), DispatchQueue::main())),
      handover_(std::move(handover)),
      state_(std::make_unique<Guarded<State>>()) {}

KQVisitorRoomCatchUp::~KQVisitorRoomCatchUp() {
  if (const auto stream = archive_->xmppStream()) {
    stream->removeDelegate(this);
  }
  archive_->deactivate();
}

void KQVisitorRoomCatchUp::start(const std::string& nickname, const Mark& mark) {
  const std::optional<std::uint64_t> attempt =
      state_->with([&](State& state) -> std::optional<std::uint64_t> {
        if (state.phase != Phase::Idle) {
          return std::nullopt;
        }
        state.phase = Phase::Discovering;
        state.nickname = nickname;
        state.mark = mark;
        return ++state.attempt;
      });
  if (!attempt) {
    return;
  }
  // The archive, and the watch on the connection, follow the room onto its stream.
  const auto stream = room_->xmppStream();
  if (const auto previous = archive_->xmppStream(); previous != stream) {
    if (previous) {
      previous->removeDelegate(this);
    }
    archive_->deactivate();
    archive_->activate(stream);
    if (stream) {
      stream->addDelegate(std::static_pointer_cast<xmpp::XMPPStreamDelegate>(shared_from_this()),
                          DispatchQueue::main());
    }
  }
  std::weak_ptr<KQVisitorRoomCatchUp> weak = weak_from_this();
  archive_->discoverArchive([weak, attempt = *attempt](bool archived) {
    if (const auto self = weak.lock()) {
      self->discovered(attempt, archived);
    }
  });
}

void KQVisitorRoomCatchUp::discovered(std::uint64_t attempt, bool archived) {
  const auto joining =
      state_->with([&](State& state) -> std::optional<std::pair<std::string, Mark>> {
        if (state.attempt != attempt || state.phase != Phase::Discovering) {
          return std::nullopt;
        }
        state.phase = archived ? Phase::JoiningForArchive : Phase::JoiningForHistory;
        return std::pair(state.nickname, state.mark);
      });
  if (joining) {
    join(joining->first, joining->second, archived);
  }
}

void KQVisitorRoomCatchUp::join(const std::string& nickname, const Mark& mark, bool archived) {
  xmpp::XMPPElement history("history");
  if (archived) {
    history.addAttributeWithName("maxchars", "0");
  } else {
    history.addAttributeWithName("since", xmpp::XMPPRoomArchive::dateTimeString(mark.since));
  }
  room_->joinRoomUsingNickname(nickname, history);
}

void KQVisitorRoomCatchUp::roomDidJoin() {
  Phase phase = Phase::Idle;
  std::uint64_t attempt = 0;
  Mark mark;
  state_->with([&](State& state) {
    if (state.phase == Phase::JoiningForArchive) {
      state.phase = Phase::FetchingArchive;
    } else if (state.phase == Phase::JoiningForHistory) {
      state.phase = Phase::ReplayingHistory;
    }
    phase = state.phase;
    attempt = state.attempt;
    mark = state.mark;
  });
  std::weak_ptr<KQVisitorRoomCatchUp> weak = weak_from_this();
  if (phase == Phase::FetchingArchive) {
    fetchArchive(attempt, mark);
  } else if (phase == Phase::ReplayingHistory) {
    // Any question will do: its answer comes after the whole history.
    archive_->discoverArchive([weak, attempt](bool /*archived*/) {
      if (const auto self = weak.lock()) {
        self->historyReplayed(attempt);
      }
    });
  }
}

void KQVisitorRoomCatchUp::fetchArchive(std::uint64_t attempt, const Mark& mark) {
  std::weak_ptr<KQVisitorRoomCatchUp> weak = weak_from_this();
  xmpp::XMPPRoomArchive::Query query;
  query.after = mark.afterId;
  if (!mark.afterId) {
    query.start = mark.since;
  }
  const xmpp::XMPPJID roomJID = room_->roomJID();
  archive_->fetchMessages(query, [weak, attempt, roomJID](auto items) {
    const auto self = weak.lock();
    if (!self) {
      return;
    }
    if (!items) {
      self->fetched(attempt, std::nullopt);
      return;
    }
    std::vector<Stanza> archived;
    for (auto& item : *items) {
      const auto from = item.message.from();
      archived.push_back({item.message, from ? *from : roomJID, item.stamp.value_or(Date::now()),
                          item.archiveId, true});
    }
    self->fetched(attempt, std::move(archived));
  });
}

void KQVisitorRoomCatchUp::fetched(std::uint64_t attempt,
                                   std::optional<std::vector<Stanza>> archived) {
  const auto [current, byTime, nickname, mark, heldBack] = state_->with([&](State& state) {
    const bool ours = state.attempt == attempt && state.phase == Phase::FetchingArchive;
    bool retry = false;
    std::vector<Stanza> held;
    if (ours) {
      if (archived) {
        state.phase = Phase::Idle;
        held = std::exchange(state.heldBack, {});
      } else if (state.mark.afterId) {
        // An archive that no longer knows the last id heard (the server forgets the archive of
        // a room everybody left, as at its restart) still answers by time, beyond the history's
        // few lines.
        state.mark.afterId.reset();
        retry = true;
      } else {
        state.phase = Phase::LeavingForHistory;  // what was held back stays held back
      }
    }
    return std::tuple(ours, retry, state.nickname, state.mark, std::move(held));
  });
  if (!current) {
    return;
  }
  if (byTime) {
    fetchArchive(attempt, mark);
    return;
  }
  if (!archived) {
    // Another join brings the room's history; the server sends it only with a join.
    room_->leaveRoom();
    join(nickname, mark, false);
    return;
  }
  std::vector<Stanza> stanzas = std::move(*archived);
  std::move(heldBack.begin(), heldBack.end(), std::back_inserter(stanzas));
  handover_(std::move(stanzas), true);
}

void KQVisitorRoomCatchUp::historyReplayed(std::uint64_t attempt) {
  auto heldBack = state_->with([attempt](State& state) -> std::optional<std::vector<Stanza>> {
    if (state.attempt != attempt || state.phase != Phase::ReplayingHistory) {
      return std::nullopt;
    }
    state.phase = Phase::Idle;
    return std::exchange(state.heldBack, {});
  });
  if (heldBack) {
    handover_(std::move(*heldBack), true);
  }
}

void KQVisitorRoomCatchUp::roomDidLeave() {
  const bool ours = state_->with([](State& state) {
    if (state.phase != Phase::LeavingForHistory) {
      return false;
    }
    state.phase = Phase::JoiningForHistory;  // the leave it asked for
    return true;
  });
  if (!ours) {
    end();
  }
}

void KQVisitorRoomCatchUp::xmppStreamDidDisconnect(xmpp::XMPPStream& /*sender*/,
                                                   const std::optional<KQError>& /*error*/) {
  end();
}

void KQVisitorRoomCatchUp::end() {
  auto heldBack = state_->with([](State& state) -> std::optional<std::vector<Stanza>> {
    if (state.phase == Phase::Idle) {
      return std::nullopt;
    }
    state.phase = Phase::Idle;
    ++state.attempt;  // what its questions bring is dropped
    return std::exchange(state.heldBack, {});
  });
  if (heldBack) {
    handover_(std::move(*heldBack), false);
  }
}

bool KQVisitorRoomCatchUp::holdBack(const xmpp::XMPPMessage& message,
                                    const xmpp::XMPPJID& occupant) {
  if (message.isErrorMessage()) {
    return false;
  }
  return state_->with([&](State& state) {
    if (state.phase == Phase::Idle || state.phase == Phase::Discovering) {
      return false;
    }
    // The room's history comes with delay stamps; a live message has none.
    const auto delay = xmpp::XMPPRoomArchive::delayStamp(message);
    state.heldBack.push_back({message, occupant, delay.value_or(Date::now()),
                              xmpp::XMPPRoomArchive::stanzaId(message, room_->roomJID()),
                              delay.has_value()});
    return true;
  });
}

}  // namespace kq
