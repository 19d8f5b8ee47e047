#include "entry.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>

#include <openssl/evp.h>

#include "expression.hpp"

namespace Tarvik
{

namespace
{

/// Whoever sees the form has no session yet, with which it could ask for a file.
constexpr std::string_view style =
    ":root { color-scheme: light dark; font: 16px/1.5 system-ui, sans-serif; }"
    "body { max-width: 26rem; margin: 15vh auto 0; padding: 0 1rem; }"
    "h1 { font-size: 1.3rem; } label { display: block; margin-bottom: 0.3rem; } code { white-space: nowrap; }"
    "input, button { font: inherit; padding: 0.4rem 0.6rem; } input { width: 100%; box-sizing: border-box; margin-bottom: 0.8rem; }";

/// Of the form: the style inside it, and a way back to this host.
const std::string& formPolicy()
{
  static const std::string policy = []
  {
    const auto digest = digestOf(style);
    std::array<unsigned char, 4 * ((std::tuple_size_v<TokenDigest> + 2) / 3) + 1> text{};
    const auto length = EVP_EncodeBlock(text.data(), digest.data(), static_cast<int>(digest.size()));
    return "default-src 'none'; style-src 'sha256-" + std::string(text.begin(), text.begin() + length) +
           "'; img-src data:; base-uri 'none'; form-action 'self'; frame-ancestors 'none'";
  }();
  return policy;
}

} // namespace

HttpAnswer Entry::answer(const std::optional<Sessions::Session>& session, const Door& door, bool toPerson)
{
  if (!session)
    return demand(toPerson, "this token or code is not known here (any more); a code is good once, for " +
                                std::to_string(Sessions::codeLife.count()) + " s");
  HttpAnswer page;
  page.body =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>Tarvik</title>\n<meta name=\"tarvik-secret\" content=\"" +
      session->secret +
      "\">\n<script src=\"/assets/enter.js\"></script></head>\n<body><p>Opening <a href=\"/\">the page</a>…</p>\n"
      "<noscript><p>It needs JavaScript. <a href=\"/modules\">The pages of the modules</a> can be seen "
      "without.</p></noscript></body></html>\n";
  page.headers.emplace_back("Set-Cookie", cookieName(door) + "=" + session->cookie +
                                              "; Max-Age=" + std::to_string(std::chrono::seconds(Sessions::life).count()) +
                                              "; HttpOnly; SameSite=Strict; Path=/" + (door.secure ? "; Secure" : ""));
  return page;
}

HttpAnswer Entry::answerForm(std::string_view body, const Door& door, Sessions& sessions)
{
  auto token = formField(body, "token").value_or("");
  constexpr std::string_view blanks = " \t\r\n"; // copied along
  token.erase(0, std::min(token.find_first_not_of(blanks), token.size()));
  token.erase(token.find_last_not_of(blanks) + 1);
  return answer(sessions.beginWithToken(token), door, true);
}

std::optional<std::string> Entry::formField(std::string_view content, std::string_view name)
{
  while (!content.empty())
  {
    const auto end = std::min(content.find('&'), content.size());
    std::string field(content.substr(0, end));
    content.remove_prefix(std::min(end + 1, content.size()));
    if (!field.starts_with(name) || field.size() == name.size() || field[name.size()] != '=')
      continue;
    field.erase(0, name.size() + 1);
    std::replace(field.begin(), field.end(), '+', ' ');
    try
    {
      return percentDecode(field);
    }
    catch (const std::invalid_argument&)
    {
      return std::nullopt;
    }
  }
  return std::nullopt;
}

HttpAnswer Entry::demand(bool toPerson, const std::string& reason)
{
  auto answer = toPerson
                    ? form(401, reason)
                    : HttpAnswer::text(401, reason + ": in a browser, open the address that \"tarvik open\" prints on the host; a program "
                                                     "sends \"Authorization: Bearer TOKEN\"");
  answer.headers.emplace_back("WWW-Authenticate", "Bearer realm=\"tarvik\"");
  return answer;
}

HttpAnswer Entry::form(unsigned status, const std::string& reason)
{
  auto sentence = reason + ".";
  sentence.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(sentence.front())));
  HttpAnswer page;
  page.status = status;
  page.policy = formPolicy();
  page.body = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><meta name=\"viewport\" content=\"width=device-width, "
              "initial-scale=1\"><title>Tarvik</title>\n<link rel=\"icon\" href=\"data:,\"><style>" +
              std::string(style) + "</style></head>\n<body><h1>Tarvik</h1>\n<p>" + sentence +
              " Run <code>tarvik open</code> on the host and open the address it prints, or enter a token.</p>\n"
              "<form method=\"post\" action=\"/\"><label for=\"token\">Token</label><input id=\"token\" name=\"token\" type=\"password\" "
              "autocomplete=\"off\" required autofocus><button>Open</button></form></body></html>\n";
  // Without a referrer, browsers would not tell where the form comes from.
  page.headers.emplace_back("Referrer-Policy", "same-origin");
  return page;
}

} // namespace Tarvik
