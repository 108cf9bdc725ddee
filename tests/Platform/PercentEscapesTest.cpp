#include <KQVisitorCore/Platform/PercentEscapes.h>

#include <gtest/gtest.h>

namespace kq {
namespace {

// What is not legal in a URL is escaped; delimiters stay, so "&" and "=" inside a value split
// it; escaping twice changes nothing more.
TEST(PercentEscapesTest, EscapesWhatIsNotLegalInAURLAndKeepsDelimiters) {
  const std::pair<std::string, std::string> cases[] = {
      {"https://h/Op?a=x y&", "https://h/Op?a=x%20y&"},
      {"http://h:8080/p?k=a&b=c+d/e:f;g@h$i,j#frag", "http://h:8080/p?k=a&b=c+d/e:f;g@h$i,j#frag"},
      {"?m=-_.!~*'()", "?m=-_.!~*'()"},
      {"?q=\"<>\\^`{|}[]", "?q=%22%3C%3E%5C%5E%60%7B%7C%7D%5B%5D"},
      {"?t=a\tb\nc\x7f", "?t=a%09b%0Ac%7F"},
      {"?n=\xC3\xA9\xE2\x82\xAC", "?n=%C3%A9%E2%82%AC"},  // non-ASCII as its UTF-8 bytes
      // An escape already there is kept; a "%" that starts none is escaped.
      {"?p=50%25&r=%2f&s=100%&u=%zz&v=%4", "?p=50%25&r=%2f&s=100%25&u=%25zz&v=%254"},
      // The brackets of an IPv6 host stay, elsewhere they are escaped.
      {"http://[::1]:8080/a?b=[c]", "http://[::1]:8080/a?b=%5Bc%5D"},
      {"", ""},
  };
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(stringByAddingPercentEscapes(input), expected) << "input: " << input;
    EXPECT_EQ(stringByAddingPercentEscapes(expected), expected) << "twice: " << input;
  }
}

}  // namespace
}  // namespace kq
