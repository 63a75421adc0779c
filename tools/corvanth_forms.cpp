#include "corvanth_forms.h"

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <vector>

#include "AssociativeArray.h"
#include "netmsg.h"
#include "rwcollstr.h"
#include "rwhashdict.h"

namespace nCorvanthTool {

namespace {

// The pieces of text between separators that stand outside braces.
std::vector<std::string_view> gSplitOutsideBraces(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  int depth = 0;
  std::size_t start = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\\') {
      ++at;
    } else if (text[at] == '{') {
      ++depth;
    } else if (text[at] == '}') {
      if (--depth < 0) throw cUsageError{"a '}' without its '{' in " + std::string(text)};
    } else if (text[at] == separator && depth == 0) {
      pieces.push_back(text.substr(start, at - start));
      start = at + 1;
    }
  }
  if (depth != 0) throw cUsageError{"a '{' without its '}' in " + std::string(text)};
  pieces.push_back(text.substr(start));
  return pieces;
}

}  // namespace

std::string gEscape(std::string_view bytes) {
  std::string out;
  for (unsigned char const byte : bytes) {
    if (byte == '\\') {
      out += "\\\\";
    } else if (byte >= 32 && byte < 127) {
      out += static_cast<char>(byte);
    } else {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", byte);
      out += hex;
    }
  }
  return out;
}

std::string gUnescape(std::string_view text) {
  std::string out;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\\') {
      out += text[at];
      continue;
    }
    if (++at == text.size()) throw cUsageError{"a value ends in a lone backslash"};
    switch (text[at]) {
      case '\\':
        out += '\\';
        break;
      case '0':
        out += '\0';
        break;
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      case 'x': {
        auto const digit = [&](std::size_t i) {
          if (i >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i]))) {
            throw cUsageError{"\\x needs two hexadecimal digits"};
          }
          char const c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
          return c <= '9' ? c - '0' : c - 'a' + 10;
        };
        out += static_cast<char>(digit(at + 1) * 16 + digit(at + 2));
        at += 2;
        break;
      }
      default:
        throw cUsageError{std::string("unknown escape \\") + text[at]};
    }
  }
  return out;
}

std::string gStringForm(CAssociativeArray const& array) {
  char const* text = nullptr;
  int length = 0;
  array.ToString(text, length, false, false);
  return std::string(text, static_cast<std::size_t>(length));
}

namespace {

// "{k=v,...}": the string form of a nested array; anything else: the bytes.
std::string gValue(std::string_view text) {
  if (!text.empty() && text.front() == '{') {
    if (text.size() < 2 || text.back() != '}') {
      throw cUsageError{"a nested array {k=v,...} lacks its closing '}': " + std::string(text)};
    }
    CAssociativeArray nested;
    std::string_view const inside = text.substr(1, text.size() - 2);
    if (inside.empty()) throw cUsageError{"a nested array {} needs at least one couple"};
    for (std::string_view couple : gSplitOutsideBraces(inside, ',')) gAddParameter(nested, couple);
    return gStringForm(nested);
  }
  return gUnescape(text);
}

}  // namespace

void gAddParameter(CAssociativeArray& array, std::string_view argument) {
  std::size_t const equals = argument.find('=');
  if (equals == std::string_view::npos || equals == 0) {
    throw cUsageError{"a parameter is <key>=<value>, not '" + std::string(argument) + "'"};
  }
  std::string const key = gUnescape(argument.substr(0, equals));
  if (key.find('\0') != std::string::npos) throw cUsageError{"a key cannot hold a zero byte"};
  std::string const value = gValue(argument.substr(equals + 1));
  array.AddCouple(key.c_str(), value.data(), static_cast<int>(value.size()));
}

std::map<std::string, std::string> gCouples(CAssociativeArray const& array) {
  std::map<std::string, std::string> couples;
  CAssociativeArray view(array);
  RWHashDictionaryIterator next(view);
  while (RWCollectable* const key = next()) {
    auto const* const keyText = dynamic_cast<RWCollectableString const*>(key);
    auto const* const valueText = dynamic_cast<RWCollectableString const*>(next.value());
    if (keyText == nullptr) continue;
    couples[*keyText] = valueText != nullptr ? std::string(*valueText) : std::string();
  }
  return couples;
}

void gPrintParameters(CAssociativeArray const& array) {
  for (auto const& [key, value] : gCouples(array)) {
    std::printf("    %s (%zu bytes) = %s\n", gEscape(key).c_str(), value.size(),
                gEscape(value).c_str());
  }
}

void gPrintEnvelope(char const* what, cCorvanthMessage const& message) {
  std::printf(
      "%s message %u from %s@%s to %s@%s, queue type %d, type %d, subtype %d, %u data bytes\n",
      what, message.getMessageId(), message.getFromClient(), message.getFromHost(),
      message.getToClient(), message.getToHost(), static_cast<int>(message.getQtype()),
      message.getType(), message.getSubtype(), message.getDatalen());
}

}  // namespace nCorvanthTool
