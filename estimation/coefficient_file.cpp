#include "estimation/coefficient_file.h"

#include <algorithm>
#include <bit>

#include "base/files.h"
#include "base/text.h"

namespace tolvan {
namespace {

struct ELEMENT {
  std::int64_t row, column;
  double value;
};

void put(std::string& out, std::uint64_t bits)
{
  for (int shift = 0; shift < 64; shift += 8) out += static_cast<char>((bits >> shift) & 0xFF);
}

/// The elements in the equations of the model.
std::vector<ELEMENT> elements_of(const MIXED_EQUATIONS& q)
{
  std::vector<std::int64_t> equation(static_cast<std::size_t>(q.n));
  for (std::int64_t e = 0; e < q.n; ++e) equation[static_cast<std::size_t>(q.position_of(e))] = e + 1;
  std::vector<ELEMENT> out;
  out.reserve(q.c.value.size());
  for (std::size_t j = 0; j < equation.size(); ++j) {
    for (auto k = static_cast<std::size_t>(q.c.start[j]); k < static_cast<std::size_t>(q.c.start[j + 1]); ++k) {
      const std::int64_t a = equation[static_cast<std::size_t>(q.c.row[k])], b = equation[j];
      out.push_back({std::max(a, b), std::min(a, b), q.c.value[k]});
    }
  }
  std::sort(out.begin(), out.end(), [](const ELEMENT& a, const ELEMENT& b) {
    return a.row != b.row ? a.row < b.row : a.column < b.column;
  });
  return out;
}

/// L_WRITE: writes a head and every element as `line` puts it; true once the file is in its place.
template <class Line>
bool L_WRITE(ERROR_HANDLER& eh, const MIXED_EQUATIONS& q, const std::string& name, std::string head, Line&& line)
{
  const Frame here{eh, __func__};
  if (q.c.value.empty()) {
    eh.warning(text("there is no file ", name, " because the equations were solved without forming their matrix"));
    return false;
  }
  const std::vector<ELEMENT> elements = elements_of(q);
  std::string bytes = std::move(head);
  FileWriter file;
  bool good = file.open(name);
  for (const ELEMENT& each : elements) {
    constexpr std::size_t piece = 1 << 20;
    line(bytes, each);
    if (bytes.size() < piece) continue;
    good = good && file.write(bytes);
    bytes.clear();
  }
  if (good && file.write(bytes) && file.commit()) return true;
  eh.error(text("unable to write file ", name), Ecode::io_error);
  eh.continuation(file.error());
  return false;
}

}  // namespace

void WRITE_CMAT(ERROR_HANDLER& eh, const MIXED_EQUATIONS& q, const std::string& name)
{
  const Frame here{eh, __func__};
  std::string head = "TLVCMAT1";
  put(head, static_cast<std::uint64_t>(q.n));
  put(head, q.c.value.size());
  const bool written = L_WRITE(eh, q, name, std::move(head), [](std::string& out, const ELEMENT& each) {
    put(out, static_cast<std::uint64_t>(each.row));
    put(out, static_cast<std::uint64_t>(each.column));
    put(out, std::bit_cast<std::uint64_t>(each.value));
  });
  if (written) eh.note("model order for equations written to CMAT.bin, CPMAT.bin or CAMAT.bin");
}

void WRITE_CMAT_TEXT(ERROR_HANDLER& eh, const MIXED_EQUATIONS& q, const std::string& name)
{
  const Frame here{eh, __func__};
  L_WRITE(eh, q, name, {}, [](std::string& out, const ELEMENT& each) {
    out += text(each.row, ' ', each.column, ' ', each.value, '\n');
  });
}

}  // namespace tolvan
