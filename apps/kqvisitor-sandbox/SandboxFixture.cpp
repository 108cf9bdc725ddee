#include "SandboxFixture.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>

namespace kqsandbox {

namespace {

using Json = nlohmann::json;

// Reads the fields of one JSON object, naming the path of each in its errors.
class Fields {
 public:
  Fields(const Json& object, std::string path) : object_(object), path_(std::move(path)) {
    if (!object_.is_object()) {
      fail("", "must be an object");
    }
  }

  [[noreturn]] void fail(const std::string& key, const std::string& problem) const {
    throw SandboxFixture::Error(path_ + (key.empty() || path_.empty() ? "" : ".") + key + ": " +
                                problem);
  }

  std::string text(const std::string& key, const std::string& fallback, bool required = false,
                   bool digits = false) const {
    if (!object_.contains(key)) {
      if (required) {
        fail(key, "is missing");
      }
      return fallback;
    }
    const Json& value = object_.at(key);
    if (!value.is_string() || (required && value.get<std::string>().empty())) {
      fail(key, "must be a non-empty string");
    }
    const auto result = value.get<std::string>();
    if (digits && (result.empty() || !std::all_of(result.begin(), result.end(),
                                                  [](char c) { return c >= '0' && c <= '9'; }))) {
      fail(key, "must be a string of digits, not \"" + result + "\"");
    }
    return result;
  }

  bool flag(const std::string& key, bool fallback) const {
    if (!object_.contains(key)) {
      return fallback;
    }
    if (!object_.at(key).is_boolean()) {
      fail(key, "must be true or false");
    }
    return object_.at(key).get<bool>();
  }

  const Json& list(const std::string& key, bool required) const {
    static const Json kEmpty = Json::array();
    if (!object_.contains(key)) {
      if (required) {
        fail(key, "is missing");
      }
      return kEmpty;
    }
    if (!object_.at(key).is_array()) {
      fail(key, "must be a list");
    }
    return object_.at(key);
  }

  [[nodiscard]] std::string path(const std::string& key, std::size_t index) const {
    return (path_.empty() ? "" : path_ + ".") + key + "[" + std::to_string(index) + "]";
  }

 private:
  const Json& object_;
  std::string path_;
};

SandboxOperator readOperator(const Json& json, const std::string& path) {
  const Fields fields(json, path);
  SandboxOperator agent;
  agent.id = fields.text("id", "", true, true);
  agent.name = fields.text("name", "", true);
  agent.language = fields.text("language", "en");
  if (agent.language != "en" && agent.language != "ar") {
    fields.fail("language", "must be \"en\" or \"ar\", not \"" + agent.language + "\"");
  }
  agent.greeting = fields.text("greeting", "Hello, I am " + agent.name + ". How can I help?");
  agent.online = fields.flag("online", true);
  agent.password = fields.text("password", "secret");
  return agent;
}

SandboxWebsite readWebsite(const Json& json, const std::string& path) {
  const Fields fields(json, path);
  SandboxWebsite website;
  website.id = fields.text("id", "", true, true);
  if (website.id.find_first_not_of('0') == std::string::npos) {
    fields.fail("id", "must not be 0: the service answers 0 for an unknown domain");
  }
  website.domain = fields.text("domain", "", true);
  website.domainArabic = fields.text("domainArabic", "");
  website.timeZone = fields.text("timeZone", "0");
  website.languageId = fields.text("languageId", "1", false, true);
  website.branding = fields.flag("branding", true);
  website.blocked = fields.flag("blocked", false);
  const Json& operators = fields.list("operators", false);
  for (std::size_t i = 0; i < operators.size(); ++i) {
    website.operators.push_back(readOperator(operators[i], fields.path("operators", i)));
  }
  return website;
}

}  // namespace

SandboxFixture SandboxFixture::fromJSON(std::string_view text) {
  const Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) {
    throw Error("the fixture is not valid JSON");
  }
  const Fields fields(json, "");
  SandboxFixture fixture;
  const Json& websites = fields.list("websites", true);
  std::set<std::string> domains;
  std::set<std::string> ids;
  std::set<std::string> operatorIds;
  for (std::size_t i = 0; i < websites.size(); ++i) {
    const auto path = fields.path("websites", i);
    auto website = readWebsite(websites[i], path);
    if (!ids.insert(website.id).second) {
      throw Error(path + ".id: \"" + website.id + "\" is used by an earlier website");
    }
    for (const auto* domain : {&website.domain, &website.domainArabic}) {
      if (!domain->empty() && !domains.insert(*domain).second) {
        throw Error(path + ": the domain \"" + *domain + "\" is used by an earlier website");
      }
    }
    for (std::size_t j = 0; j < website.operators.size(); ++j) {
      if (!operatorIds.insert(website.operators[j].id).second) {
        throw Error(path + ".operators[" + std::to_string(j) + "].id: \"" +
                    website.operators[j].id + "\" is used by an earlier operator");
      }
    }
    fixture.websites.push_back(std::move(website));
  }
  const Json& replies = fields.list("replies", false);
  for (std::size_t i = 0; i < replies.size(); ++i) {
    if (!replies[i].is_string() || replies[i].get<std::string>().empty()) {
      throw Error(fields.path("replies", i) + ": must be a non-empty string");
    }
    fixture.replies.push_back(replies[i].get<std::string>());
  }
  if (json.contains("endAfter")) {
    if (!json["endAfter"].is_number_integer() || json["endAfter"].get<int>() < 0) {
      throw Error("endAfter: must be a whole number from 0 (never)");
    }
    fixture.endAfter = json["endAfter"].get<int>();
  }
  return fixture;
}

SandboxFixture SandboxFixture::builtIn() {
  return fromJSON(R"({
    "websites": [
      {"id": "12", "domain": "shop.example", "domainArabic": "shop.example.ar", "timeZone": "3",
       "operators": [
         {"id": "42", "name": "Omar", "greeting": "Hello, I am Omar. How can I help?"},
         {"id": "43", "name": "Layla", "language": "ar", "greeting": "Marhaba, I am Layla."}]},
      {"id": "13", "domain": "blocked.example", "blocked": true,
       "operators": [{"id": "44", "name": "Sam"}]},
      {"id": "14", "domain": "closed.example", "operators": [{"id": "45", "name": "Kim", "online": false}]}
    ],
    "replies": ["Let me look that up for you.", "It ships today. Anything else?",
                "Thank you for chatting with us!"],
    "endAfter": 3
  })");
}

}  // namespace kqsandbox
