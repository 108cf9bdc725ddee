#include "SandboxConsole.h"

#include "ConsoleAssets.h"
#include "OperatorScript.h"

#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <utility>

namespace kqsandbox {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kCookie = "kqconsole";
// Each live stream holds one of the web server's few threads: more would starve the service.
constexpr int kMostStreams = 4;

// 32 hexadecimal digits from the system's random source.
std::string newToken() {
  std::random_device random;
  std::string token;
  for (int i = 0; i < 4; ++i) {
    std::array<char, 9> part{};
    std::snprintf(part.data(), part.size(), "%08x", static_cast<unsigned>(random()));
    token += part.data();
  }
  return token;
}

void answer(httplib::Response& response, int status, const Json& body) {
  response.status = status;
  response.set_content(body.dump(), "application/json; charset=utf-8");
}

void refuse(httplib::Response& response, int status, const std::string& why) {
  answer(response, status, {{"error", why}});
}

// The value of the console's cookie in `request`, if any.
std::string tokenOf(const httplib::Request& request) {
  const std::string cookies = request.get_header_value("Cookie");
  const std::string key = std::string(kCookie) + "=";
  for (std::size_t at = 0; at < cookies.size();) {
    const auto end = std::min(cookies.find(';', at), cookies.size());
    auto part = cookies.substr(at, end - at);
    part.erase(0, part.find_first_not_of(' '));
    if (part.starts_with(key)) {
      return part.substr(key.size());
    }
    at = end + 1;
  }
  return {};
}

}  // namespace

struct SandboxConsole::Impl {
  SandboxStore& store;
  SayOverXMPP say;
  Log log;
  // A live stream says something this often, so that a closed page is noticed and let go of.
  std::chrono::milliseconds keepAlive;
  bool secure = false;
  kq::Mutex mutex;
  std::map<std::string, std::string> sessions KQ_GUARDED_BY(mutex);  // token: operator id
  std::uint64_t version KQ_GUARDED_BY(mutex) = 0;                    // grows with every change
  bool stopping KQ_GUARDED_BY(mutex) = false;
  int streams KQ_GUARDED_BY(mutex) = 0;                     // live streams open
  std::map<std::string, int> pagesOf KQ_GUARDED_BY(mutex);  // operator id: its live streams
  std::condition_variable changes;

  Impl(SandboxStore& store_, SayOverXMPP say_, Log log_, std::chrono::milliseconds keepAlive_)
      : store(store_), say(std::move(say_)), log(std::move(log_)), keepAlive(keepAlive_) {}

  void changed() {
    {
      kq::MutexLock lock(mutex);
      ++version;
    }
    changes.notify_all();
  }

  // The signed-in operator of `request`; answers 401 and nullopt without one.
  std::optional<SandboxOperator> operatorOf(const httplib::Request& request,
                                            httplib::Response& response) {
    std::string id;
    {
      kq::MutexLock lock(mutex);
      const auto found = sessions.find(tokenOf(request));
      if (found != sessions.end()) {
        id = found->second;
      }
    }
    auto person = id.empty() ? std::nullopt : store.operatorById(id);
    if (!person) {
      refuse(response, 401, "Sign in first.");
    }
    return person;
  }

  // The chat of `request`'s path when it is the operator's; answers 404 or 403 otherwise.
  std::optional<SandboxChat> chatOf(const SandboxOperator& person, const std::string& chatId,
                                    httplib::Response& response) {
    auto chat = store.chat(chatId);
    if (!chat) {
      refuse(response, 404, "There is no chat " + chatId + ".");
    } else if (chat->operatorId != person.id) {
      refuse(response, 403, "Chat " + chatId + " is another operator's.");
      chat.reset();
    }
    return chat;
  }

  void signIn(const httplib::Request& request, httplib::Response& response) {
    const auto body = Json::parse(request.body, nullptr, false);
    const std::string id = body.is_object() ? body.value("id", "") : "";
    const std::string password = body.is_object() ? body.value("password", "") : "";
    const auto person = store.operatorById(id);
    if (!person || password.empty() || person->password != password) {
      log("console: sign-in refused for operator \"" + id + "\"");
      refuse(response, 401, "Wrong operator id or password.");
      return;
    }
    const std::string token = newToken();
    {
      kq::MutexLock lock(mutex);
      sessions[token] = person->id;
    }
    store.setAtConsole(person->id, true);
    log("console: operator " + person->name + " (" + person->id + ") signed in");
    response.set_header("Set-Cookie", std::string(kCookie) + "=" + token +
                                          "; Path=/console; HttpOnly; SameSite=Strict" +
                                          (secure ? "; Secure" : ""));
    answer(response, 200, me(*person));
  }

  void signOut(const httplib::Request& request, httplib::Response& response) {
    const auto person = operatorOf(request, response);
    if (!person) {
      return;
    }
    bool stillThere = false;
    {
      kq::MutexLock lock(mutex);
      sessions.erase(tokenOf(request));
      stillThere = std::any_of(sessions.begin(), sessions.end(),
                               [&](const auto& session) { return session.second == person->id; });
    }
    if (!stillThere) {
      store.setAtConsole(person->id, false);  // the script answers again
    }
    log("console: operator " + person->name + " (" + person->id + ") signed out");
    response.set_header("Set-Cookie", std::string(kCookie) + "=; Path=/console; Max-Age=0");
    answer(response, 200, Json::object());
  }

  static Json me(const SandboxOperator& person) {
    return {{"id", person.id}, {"name", person.name}, {"online", person.online}};
  }

  Json chats(const SandboxOperator& person) {
    Json list = Json::array();
    for (const auto& [chat, website, lastLine, unread] : store.chatsOf(person.id)) {
      list.push_back({{"id", chat.id},
                      {"visitor", chat.visitorName},
                      {"website", website},
                      {"started", chat.started},
                      {"lastLine", lastLine},
                      {"unread", unread},
                      {"ended", chat.ended}});
    }
    return list;
  }

  Json transcript(const SandboxChat& chat) {
    Json lines = Json::array();
    std::int64_t last = 0;
    for (const auto& line : store.messages(chat.id)) {
      lines.push_back(
          {{"id", line.id}, {"sender", line.sender}, {"text", line.text}, {"at", line.at}});
      last = line.id;
    }
    if (store.markSeen(chat.id, last)) {
      changed();  // the unread counts
    }
    const auto person = store.operatorById(chat.operatorId);
    return {{"id", chat.id},
            {"visitor", chat.visitorName},
            {"ended", chat.ended},
            {"greeting", person ? person->greeting : ""},
            {"lines", lines}};
  }

  // The operator's `text` into the chat, over XMPP when it is an XMPP chat.
  std::optional<std::string> send(const SandboxOperator& person, const SandboxChat& chat,
                                  const std::string& text) {
    switch (say(person.id, chat.id, text)) {
      case Delivery::Said: return std::nullopt;
      case Delivery::NotInRoom:
        return "You are not in the chat's room at the moment (the XMPP server may be "
               "restarting); try again in a moment.";
      case Delivery::NotXMPP:
        store.addMessage(chat.id, "operator", text);  // the visitor polls for it
        log("chat " + chat.id + ": " + person.name + ": " + text);
        return std::nullopt;
    }
    return std::nullopt;
  }

  // The live stream of a page of `operatorId`. While the operator has one open the script
  // stays quiet; when the last one ends (the page was closed, which the next write notices)
  // the script answers again, as after a sign-out, until a page of the operator comes back.
  void stream(const std::string& operatorId, httplib::Response& response) {
    {
      kq::MutexLock lock(mutex);
      if (streams >= kMostStreams) {
        lock.unlock();
        refuse(response, 503,
               "Too many console pages are open on this sandbox; close one and reload.");
        return;
      }
      ++streams;
      ++pagesOf[operatorId];
    }
    store.setAtConsole(operatorId, true);
    response.set_header("Cache-Control", "no-cache");
    response.set_chunked_content_provider(
        "text/event-stream",
        [this, told = std::uint64_t{0}, first = true](std::size_t /*offset*/,
                                                      httplib::DataSink& sink) mutable {
          {
            kq::MutexLock lock(mutex);
            if (!first) {
              lock.waitUntil(changes, std::chrono::steady_clock::now() + keepAlive);
            }
            if (stopping) {
              sink.done();
              return false;
            }
            if (!first && version == told) {
              lock.unlock();
              static constexpr std::string_view kComment = ": still here\n\n";
              return sink.write(kComment.data(), kComment.size());
            }
            told = version;
          }
          first = false;
          static constexpr std::string_view kEvent = "event: changed\ndata: {}\n\n";
          return sink.write(kEvent.data(), kEvent.size());
        },
        [this, operatorId](bool /*success*/) {
          bool gone = false;
          {
            kq::MutexLock lock(mutex);
            --streams;
            gone = --pagesOf[operatorId] == 0 && !stopping;
          }
          if (gone) {
            store.setAtConsole(operatorId, false);
            log("console: no page of operator " + operatorId + " is open; its script answers");
          }
        });
  }
};

SandboxConsole::SandboxConsole(SandboxStore& store, SayOverXMPP say, Log log,
                               std::chrono::milliseconds keepAlive)
    : impl_(std::make_shared<Impl>(store, std::move(say), std::move(log), keepAlive)) {
  // Weak: a change reported on another thread while the console goes away must not reach it.
  store.setChangeListener([weak = std::weak_ptr<Impl>(impl_)] {
    if (const auto impl = weak.lock()) {
      impl->changed();
    }
  });
}

SandboxConsole::~SandboxConsole() {
  stop();
  impl_->store.setChangeListener(nullptr);
}

void SandboxConsole::stop() {
  {
    kq::MutexLock lock(impl_->mutex);
    impl_->stopping = true;
  }
  impl_->changes.notify_all();
}

void SandboxConsole::mount(httplib::Server& server, bool secure) {
  auto* impl = impl_.get();
  impl->secure = secure;
  server.Get("/console", [](const httplib::Request&, httplib::Response& response) {
    response.set_redirect("/console/");
  });
  server.Get(
      R"(^/console/([\w.]*)$)", [](const httplib::Request& request, httplib::Response& response) {
        const std::string name =
            request.matches[1].str().empty() ? std::string("index.html") : request.matches[1].str();
        const auto asset = consoleAsset(name);
        if (!asset) {
          response.status = 404;
          return;
        }
        response.set_header("Content-Security-Policy", "default-src 'self'; img-src 'self' data:");
        response.set_content(std::string(asset->second), std::string(asset->first));
      });
  server.Post("/console/api/signin",
              [impl](const httplib::Request& request, httplib::Response& response) {
                impl->signIn(request, response);
              });
  server.Post("/console/api/signout",
              [impl](const httplib::Request& request, httplib::Response& response) {
                impl->signOut(request, response);
              });
  server.Get("/console/api/me",
             [impl](const httplib::Request& request, httplib::Response& response) {
               if (const auto person = impl->operatorOf(request, response)) {
                 answer(response, 200, Impl::me(*person));
               }
             });
  server.Post("/console/api/presence", [impl](const httplib::Request& request,
                                              httplib::Response& response) {
    if (const auto person = impl->operatorOf(request, response)) {
      const auto body = Json::parse(request.body, nullptr, false);
      if (!body.is_object() || !body.contains("online") || !body["online"].is_boolean()) {
        refuse(response, 400, "Say {\"online\": true} or {\"online\": false}.");
        return;
      }
      const bool online = body["online"].get<bool>();
      impl->store.setOperatorOnline(person->id, online);
      impl->log("console: operator " + person->name + " (" + person->id + ") is " +
                (online ? "online" : "offline") + " for new chats");
      answer(response, 200, Impl::me(*impl->store.operatorById(person->id)));
    }
  });
  server.Get("/console/api/chats",
             [impl](const httplib::Request& request, httplib::Response& response) {
               if (const auto person = impl->operatorOf(request, response)) {
                 answer(response, 200, impl->chats(*person));
               }
             });
  server.Get(R"(^/console/api/chats/(\d+)$)",
             [impl](const httplib::Request& request, httplib::Response& response) {
               if (const auto person = impl->operatorOf(request, response)) {
                 if (const auto chat = impl->chatOf(*person, request.matches[1], response)) {
                   answer(response, 200, impl->transcript(*chat));
                 }
               }
             });
  server.Post(R"(^/console/api/chats/(\d+)/(messages|end)$)",
              [impl](const httplib::Request& request, httplib::Response& response) {
                const auto person = impl->operatorOf(request, response);
                const auto chat =
                    person ? impl->chatOf(*person, request.matches[1], response) : std::nullopt;
                if (!chat) {
                  return;
                }
                if (chat->ended) {
                  refuse(response, 409, "Chat " + chat->id + " has ended.");
                  return;
                }
                const bool ending = request.matches[2] == "end";
                const auto body = Json::parse(request.body, nullptr, false);
                const std::string text = ending             ? OperatorScript::kEndText
                                         : body.is_object() ? body.value("text", "")
                                                            : "";
                if (text.empty()) {
                  refuse(response, 400, "Say {\"text\": \"...\"} with some text.");
                  return;
                }
                if (const auto problem = impl->send(*person, *chat, text)) {
                  refuse(response, 503, *problem);
                  return;
                }
                if (ending) {
                  impl->store.endChat(chat->id);
                  impl->log("chat " + chat->id + " ended by the operator");
                }
                answer(response, 200, Json::object());
              });
  server.Get("/console/api/events",
             [impl](const httplib::Request& request, httplib::Response& response) {
               if (const auto person = impl->operatorOf(request, response)) {
                 impl->stream(person->id, response);
               }
             });
}

}  // namespace kqsandbox
