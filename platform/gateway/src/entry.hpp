#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <gateway/sessions.hpp>

#include "admission.hpp"
#include "httpanswer.hpp"

namespace Tarvik
{

/// How a page's session begins, and what asks a person for a token.
namespace Entry
{

/// What the form sends is no longer.
constexpr std::size_t longestForm = 4096;

/// The answer that brings both halves to the browser: the cookie, and a page
/// that puts the secret into the tab's storage and leaves for "/". A refusal
/// where there is no session.
HttpAnswer answer(const std::optional<Sessions::Session>& session, const Door& door, bool toPerson);

/// What the form has sent: the token among the fields of `body`.
HttpAnswer answerForm(std::string_view body, const Door& door, Sessions& sessions);

/// The field of a form's content (application/x-www-form-urlencoded), decoded;
/// none when it is not there or cannot be read.
std::optional<std::string> formField(std::string_view content, std::string_view name);

/// Asks for a token: a person by a form, a program in words.
HttpAnswer demand(bool toPerson, const std::string& reason);
HttpAnswer form(unsigned status, const std::string& reason);

} // namespace Entry

} // namespace Tarvik
