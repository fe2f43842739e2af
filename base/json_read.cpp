// The only user of RapidJSON, and of its event reader alone: its own tree recurses, and does not survive a
// failed allocation.  Numbers come as text and are converted here, since the reader's own conversion
// overflows its exponent on texts such as 0.00000000001e-2147483639.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

// Sizes of 64 bits: a string longer than 4 GB must not be cut.
#define RAPIDJSON_NO_SIZETYPEDEFINE
namespace rapidjson {
using SizeType = std::size_t;
}
#include <rapidjson/error/error.h>
#include <rapidjson/reader.h>

#include "base/json.h"
#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::int64_t depth_limit = 1000;
// The reader counts leading zeros and exponents in 32 bits; nothing sensible has a number of this length.
constexpr std::size_t digits_limit = 100'000'000;

// Memory for the reader's own stack.  A failure flies as std::bad_alloc through the reader, whose members
// clean up.
class ReaderMemory {
 public:
  static constexpr bool kNeedFree = true;
  void* Malloc(std::size_t size) { return size != 0 ? ::operator new(size) : nullptr; }
  void* Realloc(void* old, std::size_t old_size, std::size_t new_size)
  {
    if (new_size == 0) {
      Free(old);
      return nullptr;
    }
    void* fresh = Malloc(new_size);
    if (old != nullptr) std::memcpy(fresh, old, std::min(old_size, new_size));
    Free(old);
    return fresh;
  }
  static void Free(void* block) { ::operator delete(block); }
};

// The text as a stream of the reader's kind: 0 past the end.
class TextStream {
 public:
  using Ch = char;
  explicit TextStream(std::string_view text)
      : begin_(text.data()), at_(text.data()), end_(text.data() + text.size())
  {
  }
  Ch Peek() const { return at_ != end_ ? *at_ : '\0'; }
  Ch Take() { return at_ != end_ ? *at_++ : '\0'; }
  std::size_t Tell() const { return static_cast<std::size_t>(at_ - begin_); }
  bool at_end() const { return at_ == end_; }
  std::string_view rest() const { return {at_, static_cast<std::size_t>(end_ - at_)}; }
  // The writing side of a stream is never used here.
  Ch* PutBegin() { return nullptr; }
  void Put(Ch) {}
  void Flush() {}
  std::size_t PutEnd(Ch*) { return 0; }

 private:
  const char* begin_;
  const char* at_;
  const char* end_;
};

bool is_digit(char c)
{
  return c >= '0' && c <= '9';
}

// Whether a decimal number that no double holds is too large (rather than too small).
bool is_huge(std::string_view digits)
{
  std::int64_t exponent = 0;  // of the first significant digit
  std::size_t k = digits[0] == '-' ? 1 : 0;
  const std::size_t mark = std::min(digits.find_first_of("eE"), digits.size());
  const std::size_t point = std::min(digits.find('.'), mark);
  while (k < mark && (digits[k] == '0' || digits[k] == '.')) ++k;
  exponent = static_cast<std::int64_t>(point) - static_cast<std::int64_t>(k);
  if (mark < digits.size()) {
    const bool negative = digits[mark + 1] == '-';
    std::int64_t e = 0;
    for (char c : digits.substr(mark + 1)) {
      if (is_digit(c) && e < 1'000'000'000'000) e = 10 * e + (c - '0');
    }
    exponent += negative ? -e : e;
  }
  return exponent > 0;
}

}  // namespace

/// Turns the reader's events into a tree.
class JsonBuilder {
 public:
  using Ch = char;
  using SizeType = rapidjson::SizeType;

  explicit JsonBuilder(const TextStream& stream) : stream_(stream) {}

  std::unique_ptr<JsonNode> root;
  std::string fault;  // set when an event refused to go on

  bool Null()
  {
    next(JsonType::null);
    return true;
  }
  bool Bool(bool value)
  {
    next(JsonType::null).set(value);
    return true;
  }
  bool String(const Ch* characters, SizeType length, bool)
  {
    next(JsonType::null).set(std::string(characters, length));
    return true;
  }
  bool Key(const Ch* characters, SizeType length, bool)
  {
    key_.assign(characters, length);
    return true;
  }
  bool StartObject() { return open(JsonType::object); }
  bool StartArray()
  {
    if (!open(JsonType::array)) return false;
    if (const std::int64_t n = numbers_ahead(); n > 0) at_->reserve_numbers(n);
    return true;
  }
  bool EndObject(SizeType) { return close(); }
  bool EndArray(SizeType) { return close(); }

  bool RawNumber(const Ch* characters, SizeType length, bool)
  {
    const char* end = characters + length;
    std::int64_t integer = 0;
    if (const auto read = std::from_chars(characters, end, integer);
        read.ec == std::errc() && read.ptr == end) {
      number(integer);
      return true;
    }
    double real = 0.0;
    const auto read = std::from_chars(characters, end, real);
    if (read.ec == std::errc::result_out_of_range) {
      real = is_huge({characters, length}) ? std::numeric_limits<double>::infinity() : 0.0;
      if (*characters == '-') real = -real;
    }
    if (!std::isfinite(real)) {
      fault = "a number is too large";
      return false;
    }
    number(real);
    return true;
  }
  // The events that numbers as text leave out.
  bool Int(int) { return false; }
  bool Uint(unsigned) { return false; }
  bool Int64(std::int64_t) { return false; }
  bool Uint64(std::uint64_t) { return false; }
  bool Double(double) { return false; }

 private:
  // The node of the next value: the root, or a new child of the open node.
  JsonNode& next(JsonType type)
  {
    if (at_ == nullptr) {
      root = std::make_unique<JsonNode>(type);
      return *root;
    }
    return at_->add(at_->is(JsonType::object) ? std::move(key_) : std::string(), type);
  }
  template <class Number>
  void number(Number value)
  {
    if (at_ != nullptr && at_->is(JsonType::array) && (at_->packed() || at_->size() == 0)) {
      at_->append_number(value);
    } else {
      next(JsonType::null).set(value);
    }
  }
  bool open(JsonType type)
  {
    if (++depth_ > depth_limit) {
      fault = text("JSON is nested deeper than ", depth_limit, " levels");
      return false;
    }
    at_ = &next(type);
    return true;
  }
  bool close()
  {
    --depth_;
    at_ = at_->parent();
    return true;
  }
  // How many numbers the array that opens here holds, if it holds nothing else: then its room is made once,
  // exactly. No character is looked at twice over all arrays, since the look ends at the first one that is no
  // number's.
  std::int64_t numbers_ahead() const
  {
    std::string_view rest = stream_.rest();
    if (!rest.empty() && rest.front() == '[') rest.remove_prefix(1);
    std::int64_t commas = 0;
    bool holds_digits = false;
    for (char c : rest) {
      if (c == ']') return holds_digits ? commas + 1 : 0;
      if (c == ',') ++commas;
      if (is_digit(c)) {
        holds_digits = true;
      } else if (c == '\0' || std::strchr(",.-+eE \t\r\n", c) == nullptr) {
        return 0;
      }
    }
    return 0;
  }

  const TextStream& stream_;
  JsonNode* at_ = nullptr;
  std::string key_;
  std::int64_t depth_ = 0;
};

namespace {

// clang-format off
std::string_view words(rapidjson::ParseErrorCode code)
{
  using namespace rapidjson;
  switch (code) {
    case kParseErrorDocumentEmpty: return "the text is empty";
    case kParseErrorDocumentRootNotSingular: return "more text follows the end of the document";
    case kParseErrorObjectMissName: return "a key in double quotes was expected";
    case kParseErrorObjectMissColon: return "a colon was expected after a key";
    case kParseErrorObjectMissCommaOrCurlyBracket: return "a comma or } was expected after a value";
    case kParseErrorArrayMissCommaOrSquareBracket: return "a comma or ] was expected after an element";
    case kParseErrorStringUnicodeEscapeInvalidHex: return "four hexadecimal digits were expected after \\u";
    case kParseErrorStringUnicodeSurrogateInvalid: return "a surrogate pair in a string is not complete";
    case kParseErrorStringEscapeInvalid: return "a string holds an unknown escape or a bare control character";
    case kParseErrorStringMissQuotationMark: return "a string is not closed";
    case kParseErrorStringInvalidEncoding: return "a string is not in UTF-8";
    case kParseErrorNumberTooBig: return "a number is too large";
    case kParseErrorNumberMissFraction: return "digits were expected after the decimal point";
    case kParseErrorNumberMissExponent: return "digits were expected in the exponent";
    default: return "a value was expected";
  }
}
// clang-format on

std::size_t long_digit_run(std::string_view text)
{
  std::size_t run = 0;
  for (std::size_t k = 0; k < text.size(); ++k) {
    run = is_digit(text[k]) ? run + 1 : 0;
    if (run > digits_limit) return k;
  }
  return text.npos;
}

}  // namespace

std::unique_ptr<JsonNode> parse_json(std::string_view source, JsonError& error)
{
  using namespace rapidjson;
  constexpr unsigned flags = kParseIterativeFlag | kParseNumbersAsStringsFlag | kParseValidateEncodingFlag;
  const auto fail = [&error](std::string_view what, std::size_t offset) {
    error.position = static_cast<std::int64_t>(offset) + 1;
    error.message = text(what, " at position ", error.position);
    return nullptr;
  };
  error = {};
  std::string_view skipped = source;
  const std::size_t mark = source.starts_with("\xEF\xBB\xBF") ? 3 : 0;  // a byte-order mark
  skipped.remove_prefix(mark);
  if (source.size() > digits_limit) {
    if (const std::size_t at = long_digit_run(source); at != source.npos)
      return fail("a number is too long", at);
  }
  ReaderMemory memory;
  GenericReader<UTF8<>, UTF8<>, ReaderMemory> reader(&memory);
  TextStream stream(skipped);
  JsonBuilder builder(stream);
  const ParseResult result = reader.Parse<flags>(stream, builder);
  if (!result && !builder.fault.empty()) return fail(builder.fault, mark + result.Offset());
  if (!result) return fail(text("invalid JSON: ", words(result.Code())), mark + result.Offset());
  // The reader takes a NUL byte for the end.
  if (!stream.at_end())
    return fail("invalid JSON: more text follows the end of the document", mark + stream.Tell());
  return std::move(builder.root);
}

}  // namespace tolvan
