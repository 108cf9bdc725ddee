#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <string>
#include <string_view>

namespace kq {

/// Escapes a whole URL string once, as the platform's legacy whole-URL escaping did, so that a
/// URL assembled from raw text can be sent:
///
/// - kept as they are: letters, digits, the marks - _ . ! ~ * ' ( ), the delimiters and
///   reserved characters ; / ? : @ & = + $ , and #, a "%" that starts an escape (two hex digits
///   follow), and the brackets of an IPv6 host right after "://";
/// - escaped as %XX (upper-case hex) byte by byte: everything else, that is spaces, control
///   characters, " < > \ ^ ` { | } [ ], a "%" that starts no escape, and each byte of a
///   non-ASCII character's UTF-8 form.
///
/// Since delimiters stay, a value that itself holds "&" or "=" splits a query: the caller's
/// text is taken as a URL, not as a component.
KQ_EXPORT std::string stringByAddingPercentEscapes(std::string_view text);

}  // namespace kq
