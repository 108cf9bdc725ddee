#include "SandboxServer.h"

#include "SandboxConsole.h"

#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <sys/socket.h>

#include <regex>
#include <stdexcept>
#include <thread>

namespace kqsandbox {

namespace {

using Json = nlohmann::ordered_json;

// The service's habits: a document serialised into a JSON string, and plain quoted strings.
std::string stringEncoded(const Json& document) {
  return Json(document.dump()).dump();
}
std::string quoted(const std::string& text) {
  return Json(text).dump();
}

std::string parameter(const httplib::Params& parameters, const std::string& name) {
  const auto found = parameters.find(name);
  return found == parameters.end() ? std::string() : found->second;
}

// "a=1 b=2", for the log.
std::string describe(const httplib::Params& parameters) {
  std::string text;
  for (const auto& [name, value] : parameters) {
    text += (text.empty() ? "" : " ") + name + "=" + value;
  }
  return text;
}

// The query of `target`, each parameter cut at its first "=": the chat library writes a
// visitor's text into the query as typed, "=" included, and the text is all that follows.
httplib::Params queryOf(const std::string& target) {
  httplib::Params parameters;
  const auto query = target.find('?');
  if (query == std::string::npos) {
    return parameters;
  }
  std::size_t at = query + 1;
  while (at <= target.size()) {
    const auto end = std::min(target.find('&', at), target.size());
    const std::string pair = target.substr(at, end - at);
    const auto equals = pair.find('=');
    if (!pair.empty()) {
      parameters.emplace(httplib::detail::decode_url(pair.substr(0, equals), true),
                         equals == std::string::npos
                             ? std::string()
                             : httplib::detail::decode_url(pair.substr(equals + 1), true));
    }
    at = end + 1;
  }
  return parameters;
}

std::string shortened(const std::string& text) {
  constexpr std::size_t kLongest = 120;
  return text.size() <= kLongest ? text : text.substr(0, kLongest) + "...";
}

}  // namespace

struct SandboxServer::Impl {
  SandboxStore& store;
  SandboxConsole* console = nullptr;
  OperatorScript script;
  Log log;
  std::unique_ptr<httplib::Server> server;
  bool tls = false;
  int port = 0;
  std::thread thread;
  kq::Mutex mutex;
  ChatOpened chatOpened KQ_GUARDED_BY(mutex);

  Impl(SandboxStore& store_, OperatorScript script_, Log log_)
      : store(store_), script(std::move(script_)), log(std::move(log_)) {}

  // One operation of the JSON chat service: (HTTP status, body).
  std::pair<int, std::string> answer(const std::string& operation, const httplib::Params& p) {
    if (operation == "GetWI") {
      const auto website = store.websiteByDomain(parameter(p, "parD"));
      if (!website) {
        return {200, stringEncoded({{"W_I", "0"}})};
      }
      return {200, stringEncoded({{"W_I", website->id},
                                  {"T_Z", website->timeZone},
                                  {"P_L", website->languageId},
                                  {"S_B", website->branding ? "true" : "false"}})};
    }
    if (operation == "ReadValue") {
      return {200, quoted(store.dataStamp())};
    }
    if (operation == "InVsIn") {
      const auto [id, session, name] = store.addVisitor(parameter(p, "parWI"));
      log("visitor " + id + " (" + name + ") registered on website " + parameter(p, "parWI"));
      return {200, stringEncoded({{"V_I", id}, {"V_N", name}, {"S_I", session}})};
    }
    if (operation == "IsWbBl") {
      const auto website = store.websiteById(parameter(p, "parWI"));
      return {200, quoted(website && website->blocked ? "1" : "0")};
    }
    if (operation == "ChatPreByLan") {
      return {200, stringEncoded(operatorFor(parameter(p, "parWI"), parameter(p, "parLI")))};
    }
    if (operation == "InsGrtInfo") {
      return {200, quoted(store.addGreeting(parameter(p, "parUI"), parameter(p, "parVI")))};
    }
    if (operation == "InsertCInfoM" || operation == "InsertCInfoMwithSurvey") {
      return openChat(p);
    }
    if (operation == "InsertChatMessage") {
      return visitorSaid(parameter(p, "parChatId"), parameter(p, "parMessage"));
    }
    if (operation == "GetChatMessagesAlt") {
      const std::string after = parameter(p, "parMessageId");
      const auto next =
          store.nextOperatorMessage(parameter(p, "parChatId"), std::atoll(after.c_str()));
      return {200, next ? Json::array({next->second, std::to_string(next->first)}).dump()
                        : Json::array({"", after.empty() ? "0" : after}).dump()};
    }
    if (operation == "ET") {
      const std::string chatId = parameter(p, "parChatId");
      if (!store.chat(chatId)) {
        return {200, ""};
      }
      store.endChat(chatId);
      log("chat " + chatId + " ended by the visitor");
      return {200, quoted("1")};
    }
    return {404, quoted("Unknown operation " + operation)};
  }

  // The answer of "ChatPreByLan": an online operator of the website in the visitor's language
  // (Arabic for language 5), or none.
  Json operatorFor(const std::string& websiteId, const std::string& languageId) {
    const std::string language = languageId == "5" ? "ar" : "en";
    if (const auto website = store.websiteById(websiteId)) {
      for (const auto& agent : website->operators) {
        if (agent.online && agent.language == language) {
          return {{"U_I", agent.id},
                  {"U_N", agent.name},
                  {"AG_M", agent.greeting},
                  {"C_I", "0"},
                  {"I_AIC", "0"}};
        }
      }
    }
    log("no operator of website " + websiteId + " is online for language " + language);
    return {{"U_I", nullptr}, {"U_N", nullptr}, {"AG_M", nullptr}, {"C_I", "0"}, {"I_AIC", "0"}};
  }

  std::pair<int, std::string> openChat(const httplib::Params& p) {
    const std::string operatorId = parameter(p, "parUI");
    Json survey = Json::object();
    for (const auto& [field, key] : {std::pair{"parName", "name"}, std::pair{"parEmail", "email"},
                                     std::pair{"parPhone", "phone"}}) {
      if (!parameter(p, field).empty()) {
        survey[key] = parameter(p, field);
      }
    }
    const std::string chatId =
        store.openChat(parameter(p, "parWI"), parameter(p, "parVI"), operatorId,
                       parameter(p, "parVN"), parameter(p, "parCM"), survey.dump());
    log("chat " + chatId + " opened: visitor " + parameter(p, "parVI") + " (" +
        parameter(p, "parVN") + ") with operator " + operatorId +
        (survey.empty() ? "" : ", survey " + survey.dump()));
    ChatOpened opened;
    {
      kq::MutexLock lock(mutex);
      opened = chatOpened;
    }
    if (opened) {
      opened(chatId, operatorId);
    }
    return {200, Json::array({chatId}).dump()};
  }

  // A visitor's message over HTTP: kept, and the scripted operator's answers queued for polling.
  std::pair<int, std::string> visitorSaid(const std::string& chatId, const std::string& text) {
    const auto chat = store.chat(chatId);
    if (!chat || chat->ended) {
      log("message for " + std::string(chat ? "ended" : "unknown") + " chat " + chatId +
          " refused");
      return {200, ""};
    }
    store.addMessage(chatId, "visitor", text);
    log("chat " + chatId + ": visitor: " + text);
    if (store.atConsole(chat->operatorId)) {
      return {200, quoted("1")};  // a person answers at the console
    }
    const auto agent = store.operatorById(chat->operatorId);
    for (const auto& reply : script.answersTo(store.messageCount(chatId, "visitor"))) {
      store.addMessage(chatId, "operator", reply);
      if (reply == OperatorScript::kEndText) {
        store.endChat(chatId);
        log("chat " + chatId + " ended by the operator");
      } else {
        log("chat " + chatId + ": " + (agent ? agent->name : "operator") + ": " + reply);
      }
    }
    return {200, quoted("1")};
  }

  // A SOAP call of the management service.
  std::pair<int, std::string> soap(const httplib::Request& request) {
    std::string action = request.get_header_value("SOAPAction");
    action.erase(std::remove(action.begin(), action.end(), '"'), action.end());
    const std::string operation = action.substr(action.rfind('/') + 1);
    Json fields = Json::object();
    static const std::regex kLeaf(R"(<(\w+)>([^<]*)</\1>)");
    for (std::sregex_iterator leaf(request.body.begin(), request.body.end(), kLeaf), end;
         leaf != end; ++leaf) {
      fields[(*leaf)[1].str()] = (*leaf)[2].str();
    }
    std::string result;
    if (operation == "SendOfflineEmail") {
      store.addOfflineMessage(fields.dump());
      log("offline message kept: " + fields.dump());
      result = "<SendOfflineEmailResult>true</SendOfflineEmailResult>";
    } else if (operation == "GetAllLanguages") {
      result =
          "<GetAllLanguagesResult><Language><Id>1</Id><Name>English</Name></Language>"
          "<Language><Id>5</Id><Name>Arabic</Name></Language></GetAllLanguagesResult>";
    } else {
      return {500,
              "<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope "
              "xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
              "<soap:Fault><faultcode>soap:Client</faultcode><faultstring>Unknown action " +
                  action + "</faultstring></soap:Fault></soap:Body></soap:Envelope>"};
    }
    return {200,
            "<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope "
            "xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body><" +
                operation + "Response>" + result + "</" + operation +
                "Response></soap:Body></soap:Envelope>"};
  }

  // A file upload: kept, and answered with the quoted link that serves it back.
  std::pair<int, std::string> upload(const httplib::Request& request) {
    if (!request.has_file("file")) {
      return {400, quoted("No file was sent.")};
    }
    const auto file = request.get_file_value("file");
    const std::string id = store.addFile(file.filename, file.content);
    const std::string link = origin() + "/files/" + id + "/" + file.filename;
    log("file " + id + " kept: " + file.filename + " (" + std::to_string(file.content.size()) +
        " bytes)");
    return {200, quoted(link)};
  }

  [[nodiscard]] std::string origin() const {
    return (tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port);
  }

  void reply(httplib::Response& response, const std::pair<int, std::string>& answer,
             const char* type) {
    response.status = answer.first;
    response.set_content(answer.second, type);
  }

  // A JSON call, whatever the server library made of its request line.
  void json(const std::string& operation, const httplib::Params& parameters,
            httplib::Response& response) {
    try {
      reply(response, answer(operation, parameters), "application/json; charset=utf-8");
    } catch (const std::exception& error) {
      log("error in " + operation + ": " + error.what());
      reply(response, {500, quoted(error.what())}, "application/json; charset=utf-8");
    }
    log("GET " + operation + " " + describe(parameters) + " -> " + std::to_string(response.status) +
        " " + shortened(response.body));
  }
};

SandboxServer::SandboxServer(SandboxStore& store, OperatorScript script, std::optional<TLS> tls,
                             Log log)
    : impl_(std::make_unique<Impl>(store, std::move(script), std::move(log))) {
  if (tls) {
    impl_->server =
        std::make_unique<httplib::SSLServer>(tls->certFile.c_str(), tls->keyFile.c_str());
    impl_->tls = true;
  } else {
    impl_->server = std::make_unique<httplib::Server>();
  }
  if (!impl_->server->is_valid()) {
    throw std::runtime_error("the HTTPS certificate or key cannot be used");
  }
  auto& server = *impl_->server;
  auto* impl = impl_.get();
  server.set_tcp_nodelay(true);
  // Address reuse only: with the server library's default (port reuse too) a second sandbox
  // would share a port that is taken instead of being told.
  server.set_socket_options([](socket_t socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  // The operation is the last segment of the path, under either chat service.
  const std::string services =
      R"(^/(?:VisitorServiceXMPPSSL|VisitorService_Mobile)/ChatService\.svc/(\w+)$)";
  server.Get(services, [impl](const httplib::Request& request, httplib::Response& response) {
    impl->json(request.matches[1], queryOf(request.target), response);
  });
  server.Post(services, [impl](const httplib::Request& request, httplib::Response& response) {
    httplib::Params parameters;
    const auto body = Json::parse(request.body, nullptr, false);
    if (body.is_object()) {
      for (const auto& [name, value] : body.items()) {
        parameters.emplace(name, value.is_string() ? value.get<std::string>() : value.dump());
      }
    }
    impl->json(request.matches[1], parameters, response);
  });
  server.Post("/ManagementService/ManagementService.asmx",
              [impl](const httplib::Request& request, httplib::Response& response) {
                impl->reply(response, impl->soap(request), "text/xml; charset=utf-8");
                impl->log("POST SOAP " + request.get_header_value("SOAPAction") + " -> " +
                          std::to_string(response.status));
              });
  server.Post(
      "/FileUploader/api/FileUploader/FileTransfer3_5_OP",
      [impl](const httplib::Request& request, httplib::Response& response) {
        impl->reply(response, impl->upload(request), "application/json; charset=utf-8");
        impl->log("POST upload -> " + std::to_string(response.status) + " " + response.body);
      });
  server.Get(R"(^/files/(\d+)/.*$)",
             [impl](const httplib::Request& request, httplib::Response& response) {
               if (const auto file = impl->store.file(request.matches[1])) {
                 response.set_content(file->second, "application/octet-stream");
               } else {
                 response.status = 404;
               }
             });
  // The chat library writes a visitor's text into the query as typed, "?" included; this
  // server library refuses a second "?" in a request line. Such a request is read here.
  server.set_error_handler([impl](const httplib::Request& request, httplib::Response& response) {
    const auto query = request.target.find('?');
    static const std::regex kService(R"(^.*/ChatService\.svc/(\w+)$)");
    std::smatch operation;
    const std::string path = request.target.substr(0, query);
    if (response.status != 400 || query == std::string::npos ||
        !std::regex_match(path, operation, kService)) {
      return;
    }
    impl->json(operation[1], queryOf(request.target), response);
    // The server library stopped reading this request at its first line: the rest of it must
    // not be taken for the next request on the connection.
    response.set_header("Connection", "close");
  });
}

SandboxServer::~SandboxServer() {
  stop();
}

void SandboxServer::mountConsole(SandboxConsole& console) {
  impl_->console = &console;
  console.mount(*impl_->server, impl_->tls);
}

void SandboxServer::setChatOpened(ChatOpened chatOpened) {
  kq::MutexLock lock(impl_->mutex);
  impl_->chatOpened = std::move(chatOpened);
}

void SandboxServer::start(int port) {
  auto& server = *impl_->server;
  if (port == 0) {
    impl_->port = server.bind_to_any_port("127.0.0.1");
  } else if (server.bind_to_port("127.0.0.1", port)) {
    impl_->port = port;
  }
  if (impl_->port <= 0) {
    throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(port) +
                             ": the port is taken. Stop what uses it, or choose another with "
                             "--port (0 picks a free one).");
  }
  impl_->thread = std::thread([&server] { server.listen_after_bind(); });
}

void SandboxServer::stop() {
  if (impl_->console != nullptr) {
    impl_->console->stop();  // its live streams would hold the server's threads
  }
  if (impl_->thread.joinable()) {
    impl_->server->stop();
    impl_->thread.join();
  }
}

int SandboxServer::port() const {
  return impl_->port;
}

std::string SandboxServer::origin() const {
  return impl_->origin();
}

}  // namespace kqsandbox
