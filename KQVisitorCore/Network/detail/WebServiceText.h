#pragma once

// Text helpers shared by the JSON, SOAP and upload requests of the web service. Internal to the
// library (not exported from the shared library).

#include <KQVisitorCore/Platform/KQError.h>

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <string_view>

namespace kq::detail {

/// "%@" of a parameter value as a dictionary holds it: strings as their text, numbers in
/// decimal, booleans as 1 or 0 (a boolean number's text), null as "<null>" (the null object's
/// text), arrays, objects and binary values as compact JSON.
std::string describeParameter(const nlohmann::ordered_json& value);
/// describeParameter(value) appended to `text`.
void appendParameter(std::string& text, const nlohmann::ordered_json& value);

/// `data` as UTF-8 text: valid UTF-8 is kept byte for byte, each invalid sequence becomes
/// U+FFFD, so that the text can always be put into JSON.
std::string decodeUTF8(std::string_view data);

/// The service's answer after the three cleaning steps, each over the whole text in turn:
/// every backslash removed, then each "\"{" made "{", then each "}\"" made "}".
std::string cleanedResponseText(std::string_view text);

/// `text` without any of the characters in `characters`.
std::string removingCharacters(std::string_view text, std::string_view characters);

/// The error reported when the settings cannot be loaded: domain "KQVisitorConfig", code 1,
/// `reason` under "NSLocalizedDescription".
KQError configurationError(const std::string& reason);

}  // namespace kq::detail
