// The .veo file.  Routines: WRITE_EQUATION_ORDER, READ_EQUATION_ORDER.
#include "varstruct/equation_order_file.h"

#include <string_view>

namespace tolvan {

namespace {

constexpr std::string_view mark = "TLVEO001";

void put(std::string& out, std::int64_t value)
{
  for (int shift = 0; shift < 64; shift += 8) out += static_cast<char>((static_cast<std::uint64_t>(value) >> shift) & 0xFF);
}

/// The next little-endian number; false behind the end.
bool take(std::string_view& bytes, std::int64_t& value)
{
  if (bytes.size() < 8) return false;
  std::uint64_t v = 0;
  for (std::size_t k = 0; k < 8; ++k) v |= static_cast<std::uint64_t>(static_cast<unsigned char>(bytes[k])) << (8 * k);
  value = static_cast<std::int64_t>(v);
  bytes.remove_prefix(8);
  return true;
}

bool take_expected(std::string_view& bytes, std::int64_t expected)
{
  std::int64_t value = 0;
  return take(bytes, value) && value == expected;
}

}  // namespace

bool is_order_of(const SAVED_ORDER& order, std::int64_t equations, std::int64_t dense)
{
  if (static_cast<std::int64_t>(order.order.size()) != equations || order.dense != dense || dense > equations) return false;
  std::vector<std::uint8_t> seen(order.order.size(), 0);
  std::int64_t position = 0;
  for (const std::int32_t equation : order.order) {
    if (equation < 0 || equation >= equations || seen[static_cast<std::size_t>(equation)] != 0) return false;
    seen[static_cast<std::size_t>(equation)] = 1;
    if (position >= equations - dense && equation != position) return false;
    ++position;
  }
  return true;
}

std::string WRITE_EQUATION_ORDER(const TERM_TABLE& terms, const SAVED_ORDER& order)
{
  std::string out(mark);
  out.reserve(8 * (order.order.size() + 2 * terms.rows.size() + 4));
  put(out, static_cast<std::int64_t>(order.order.size()));
  put(out, order.dense);
  put(out, static_cast<std::int64_t>(terms.rows.size()));
  for (const TERM_ROW& term : terms.rows) {
    put(out, term.code);
    put(out, term.equations);
  }
  for (const std::int32_t equation : order.order) put(out, equation);
  return out;
}

bool READ_EQUATION_ORDER(std::string_view bytes, const TERM_TABLE& terms, SAVED_ORDER& order)
{
  order = {};
  if (!bytes.starts_with(mark)) return false;
  bytes.remove_prefix(mark.size());
  SAVED_ORDER read;
  if (!take_expected(bytes, terms.equations) || !take(bytes, read.dense)) return false;
  if (!take_expected(bytes, static_cast<std::int64_t>(terms.rows.size()))) return false;
  for (const TERM_ROW& term : terms.rows) {
    if (!take_expected(bytes, term.code) || !take_expected(bytes, term.equations)) return false;
  }
  if (bytes.size() != 8 * static_cast<std::size_t>(terms.equations)) return false;
  read.order.reserve(static_cast<std::size_t>(terms.equations));
  for (std::int64_t equation = 0; take(bytes, equation);) {
    if (equation < 0 || equation >= terms.equations) return false;
    read.order.push_back(static_cast<std::int32_t>(equation));
  }
  if (read.dense < 0 || !is_order_of(read, terms.equations, read.dense)) return false;
  order = std::move(read);
  return true;
}

}  // namespace tolvan
