#include <packages/shellwords.hpp>

#include <optional>
#include <stdexcept>
#include <utility>

namespace packages
{

std::vector<std::string> shellWords(std::string_view text)
{
  std::vector<std::string> words;
  std::optional<std::string> word; // none between words: '' is a word, though an empty one
  char quote = 0;
  for (std::size_t i = 0; i < text.size(); ++i)
  {
    const char character = text[i];
    const bool blank = character == ' ' || character == '\t' || character == '\n' || character == '\r';
    if (!quote && blank)
    {
      if (word)
        words.push_back(*std::exchange(word, std::nullopt));
      continue;
    }
    if (!word)
      word.emplace();
    if (character == quote)
      quote = 0;
    else if (!quote && (character == '\'' || character == '"'))
      quote = character;
    else if (character == '\\' && quote != '\'')
    {
      if (i + 1 == text.size())
        throw std::invalid_argument("a backslash at the end quotes nothing");
      const char next = text[++i];
      if (quote && std::string_view("\"\\$`").find(next) == std::string_view::npos)
        *word += character;
      *word += next;
    }
    else
      *word += character;
  }
  if (quote)
    throw std::invalid_argument(std::string("the quote ") + quote + " is not closed");
  if (word)
    words.push_back(*word);
  return words;
}

} // namespace packages
