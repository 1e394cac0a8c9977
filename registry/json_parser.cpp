#include "registry/json_parser.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "lib/platform/escape.h"
#include "lib/platform/string_operations.h"

namespace {

using nlohmann::json;

// The text as input of the library's scanner, which reads it byte by byte.
struct Input {
  const char* begin;
  const char* end;
  const char* at;
  StopCheck& stop;
};

Input InputOf(std::string_view text, StopCheck& stop) {
  return {text.data(), text.data() + text.size(), text.data(), stop};
}

// All copies read from the same input. A default-constructed iterator is the end.
class Cursor {
public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  explicit Cursor(Input* input = nullptr) : m_input(input) {}

  const char& operator*() const { return *m_input->at; }
  Cursor& operator++() {
    ++m_input->at;
    m_input->stop.Step();
    return *this;
  }
  bool operator!=(const Cursor&) const { return m_input->at != m_input->end; }

private:
  Input* m_input;
};

using Adapter = nlohmann::detail::iterator_input_adapter<Cursor>;
using Scanner = nlohmann::detail::lexer<json, Adapter>;
using Token = Scanner::token_type;

class Parser {
public:
  Parser(std::string_view text, JsonHandler& handler, StopCheck& stop)
      : m_input(InputOf(text, stop)), m_scanner(Adapter(Cursor(&m_input), Cursor())), m_handler(handler) {
    // A long string that grows leaves holes of its own size in the heap. A block of this size is mapped outside the
    // heap. Memory that is not used is never touched.
    if (text.size() > kLongText) {
      m_scanner.get_string().reserve(text.size() + kNotOfHeap);
    }
  }

  void ParseValue() {
    Scan();
    do {
      if (StartOrScalar()) {
        EndContainers();
      }
    } while (!m_open.empty());
  }

  void ExpectEnd() {
    // The scanner also treats a NUL byte as the end.
    if (Scan() != Token::end_of_input) {
      Fail(Token::end_of_input);
    }
    if (m_input.at != m_input.end || IsAfterNul()) {
      FailWith("'<U+0000>'; expected end of input");
    }
  }

private:
  std::size_t Position() const { return static_cast<std::size_t>(m_input.at - m_input.begin); }

  Token Scan() {
    // To find the end of a number, the scanner reads one more byte.
    m_scanned_from = Position() - (IsNumber() ? 1 : 0);
    m_token = m_scanner.scan();
    if (m_token == Token::value_string || IsNumber()) {
      m_quoted_from = m_scanned_from;
    }
    return m_token;
  }

  bool IsNumber() const {
    return m_token == Token::value_unsigned || m_token == Token::value_integer || m_token == Token::value_float;
  }

  // Handles the current token as the beginning of a value. Returns whether the value is complete; the end of an empty
  // container is part of it.
  bool StartOrScalar() {
    switch (m_token) {
      case Token::begin_object:
        m_handler.Start(true);
        if (Scan() != Token::end_object) {
          m_open.push_back(true);
          NameAndColon();
          return false;
        }
        m_handler.End();
        return true;
      case Token::begin_array:
        m_handler.Start(false);
        if (Scan() != Token::end_array) {
          m_open.push_back(false);
          return false;
        }
        m_handler.End();
        return true;
      case Token::literal_null:
        m_handler.Null();
        return true;
      case Token::literal_true:
        m_handler.Other("true");
        return true;
      case Token::literal_false:
        m_handler.Other("false");
        return true;
      case Token::value_string:
        m_handler.String(m_scanner.get_string());
        return true;
      case Token::value_unsigned:
      case Token::value_integer:
      case Token::value_float:
        m_handler.Other(m_scanner.get_string());
        return true;
      default:
        Fail(Token::literal_or_value);
    }
  }

  // Handles the tokens after a value: the ends of its containers, up to the beginning of the next value.
  void EndContainers() {
    while (!m_open.empty()) {
      const bool is_object = m_open.back();
      const Token end = is_object ? Token::end_object : Token::end_array;
      if (Scan() == Token::value_separator) {
        Scan();
        if (is_object) {
          NameAndColon();
        }
        return;
      }
      if (m_token != end) {
        Fail(end);
      }
      m_handler.End();
      m_open.pop_back();
    }
  }

  void NameAndColon() {
    if (m_token != Token::value_string) {
      Fail(Token::value_string);
    }
    m_handler.Name(m_scanner.get_string(), Position());
    if (Scan() != Token::name_separator) {
      Fail(Token::name_separator);
    }
    Scan();
  }

  // The messages are those of the library's own parser.
  [[noreturn]] void Fail(Token expected) {
    if (m_token != Token::parse_error) {
      FailWith(std::string(Scanner::token_type_name(m_token)) + "; expected " + Scanner::token_type_name(expected));
    }
    std::string reason = m_scanner.get_error_message() + ("; last read: '" + LastRead() + '\'');
    if (expected != Token::literal_or_value) {
      reason += std::string("; expected ") + Scanner::token_type_name(expected);
    }
    FailWith(reason);
  }

  [[noreturn]] void FailWith(std::string reason) {
    // The quoted input can end within a character.
    reason.resize(std::min(reason.size(), bramble::kLongestFormattedString));
    throw JsonSyntaxError(bramble::strprintf("parse error - unexpected %s", escape::AsciiCopy(reason).c_str()),
                          FailedOffset());
  }

  std::size_t FailedOffset() const {
    if (m_token == Token::end_of_input) {
      return IsAfterNul() ? Position() - 1 : Position();
    }
    const std::string_view text(m_input.begin, Position());
    return std::min(text.find_first_not_of(kWhiteSpace, m_scanned_from), text.size());
  }

  bool IsAfterNul() const { return m_input.at != m_input.begin && m_input.at[-1] == '\0'; }

  // Returns what the scanner has read since the beginning of the last string or number, as far as an error message
  // prints it.
  std::string LastRead() const {
    const std::string_view text(m_input.begin, Position());
    const std::size_t failed = text.find_first_not_of(kWhiteSpace, m_scanned_from);
    const bool is_quoted = failed != std::string_view::npos && IsQuoted(text[failed]);
    std::size_t from = is_quoted ? m_scanned_from : m_quoted_from;
    while (from != kNone && from < text.size() && !IsQuoted(text[from])) {
      ++from;
    }
    std::string shown;
    for (const char c : text.substr(from == kNone ? 0 : from, bramble::kLongestFormattedString)) {
      shown += static_cast<unsigned char>(c) < 0x20 ? bramble::strprintf("<U+%.4X>", c) : std::string(1, c);
    }
    return shown;
  }

  static bool IsQuoted(char c) { return c == '"' || c == '-' || (c >= '0' && c <= '9'); }

  static constexpr std::size_t kLongText = std::size_t{1} << 20;
  static constexpr std::size_t kNotOfHeap = std::size_t{32} << 20;
  static constexpr std::string_view kWhiteSpace = " \t\r\n";
  static constexpr std::size_t kNone = std::string_view::npos;

  Input m_input;
  Scanner m_scanner;
  JsonHandler& m_handler;
  Token m_token = Token::uninitialized;
  std::size_t m_scanned_from = 0;     // where the scan for the current token began
  std::size_t m_quoted_from = kNone;  // where the scan for the last string or number began
  std::vector<bool> m_open;           // open containers, outermost first; true for an object
};

}  // namespace

void ParseJson(std::string_view text, JsonHandler& handler, StopCheck& stop) {
  Parser parser(text, handler, stop);
  parser.ParseValue();
  parser.ExpectEnd();
}

void ParseJsonValue(std::string_view text, JsonHandler& handler, StopCheck& stop) {
  Parser(text, handler, stop).ParseValue();
}

// Uses the values of the library only for scalars. The destructors of arrays and objects allocate memory, which ends
// the process if there is none.
std::string PrintJsonScalar(const std::string& token) {
  StopCheck never;
  Input input = InputOf(token, never);
  Scanner scanner{Adapter(Cursor(&input), Cursor())};
  switch (scanner.scan()) {
    case Token::value_unsigned:
      return json(scanner.get_number_unsigned()).dump();
    case Token::value_integer:
      return json(scanner.get_number_integer()).dump();
    case Token::value_float:
      return std::isfinite(scanner.get_number_float()) ? json(scanner.get_number_float()).dump() : token;
    default:
      return token;
  }
}
