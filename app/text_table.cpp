#include "app/text_table.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "app/terminal.h"
#include "tolvan/tolvan_api.h"

namespace tolvan::driver {
namespace {

std::size_t width_of(const std::string& text)  // characters of UTF-8, not bytes
{
  return static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

bool is_value(double x)
{
  return std::isfinite(x) && x != TOLVAN_MISSING;
}

int exponent_of(double x)
{
  return static_cast<int>(std::floor(std::log10(x)));
}

std::string general(double x)
{
  char text[40];
  std::snprintf(text, sizeof text, "%.6g", x);
  return text;
}

}  // namespace

std::string text_table(const std::vector<TextColumn>& columns)
{
  std::size_t rows = 0;
  std::vector<std::size_t> widths;
  for (const TextColumn& column : columns) {
    rows = std::max(rows, column.cells.size());
    std::size_t width = width_of(column.heading);
    for (const std::string& cell : column.cells) width = std::max(width, width_of(cell));
    widths.push_back(width);
  }
  const auto line = [&](auto&& text_of) {
    std::string out;
    for (std::size_t c = 0; c < columns.size(); ++c) {
      const std::string& text = text_of(columns[c]);
      const std::string pad(widths[c] - width_of(text), ' ');
      out += "  " + (columns[c].right ? pad + text : text + pad);
    }
    return out.erase(out.find_last_not_of(' ') + 1);
  };
  static const std::string nothing;
  std::string out = styled(stdout, Style::faint,
                           line([](const TextColumn& c) -> const std::string& { return c.heading; })) +
                    "\n";
  for (std::size_t r = 0; r < rows; ++r) {
    out += line(
        [&](const TextColumn& c) -> const std::string& { return r < c.cells.size() ? c.cells[r] : nothing; });
    out += '\n';
  }
  return out;
}

std::string number_cell(double value, int decimals)
{
  if (!is_value(value)) return "";
  char text[400];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  const std::string_view digits = text;
  // A rounded zero has no sign.
  return std::string(digits.find_first_not_of("-0.") == std::string_view::npos && digits.front() == '-'
                         ? digits.substr(1)
                         : digits);
}

std::string general_cell(double value)
{
  return is_value(value) ? general(value) : "";
}

std::vector<std::string> number_cells(const std::vector<double>& values, int decimals)
{
  std::vector<std::string> cells;
  for (const double x : values) cells.push_back(number_cell(x, decimals));
  return cells;
}

std::vector<std::string> number_cells(const std::vector<double>& values, const std::vector<std::string>& codes)
{
  constexpr int most_digits = 12;
  double largest = 0.0;
  double smallest = INFINITY;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const double x = values[i];
    if (!is_value(x) || x == 0.0 || (i < codes.size() && codes[i].starts_with('B'))) continue;
    largest = std::max(largest, std::abs(x));
    smallest = std::min(smallest, std::abs(x));
  }
  if (largest == 0.0) return codes.empty() ? number_cells(values, 0) : number_cells(values);
  const int decimals = std::max({0, 5 - exponent_of(largest), 2 - exponent_of(smallest)});
  if (decimals + std::max(0, exponent_of(largest)) < most_digits) return number_cells(values, decimals);
  std::vector<std::string> cells;
  for (const double x : values) cells.push_back(is_value(x) ? general(x) : "");
  return cells;
}

std::vector<std::string> number_cells(const std::vector<std::int32_t>& values)
{
  std::vector<std::string> cells;
  for (const std::int32_t i : values) cells.push_back(std::to_string(i));
  return cells;
}

std::vector<std::string> number_cells(const std::vector<double>& values)
{
  return number_cells(values, std::vector<std::string>{});
}

std::vector<std::string> error_cells(const std::vector<double>& values)
{
  std::vector<std::string> cells = number_cells(values);
  for (std::size_t i = 0; i < cells.size(); ++i)
    if (values[i] == 0.0 || !is_value(values[i])) cells[i] = "-";
  return cells;
}

}  // namespace tolvan::driver
