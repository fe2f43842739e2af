#include "relmat/damaged_matrix.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <vector>

#include "base/text.h"
#include "support/damage.h"

namespace tolvan {
namespace {

/// Records with their lengths before and behind.
template <class T>
std::string records(std::initializer_list<std::initializer_list<double>> rows)
{
  std::string out;
  const auto add = [&out](const auto& x) { out.append(reinterpret_cast<const char*>(&x), sizeof x); };
  for (const auto& row : rows) {
    const auto bytes = static_cast<std::int32_t>(row.size() * sizeof(T));
    add(bytes);
    for (const double x : row) add(static_cast<T>(x));
    add(bytes);
  }
  return out;
}

std::vector<MATRIX_CASE> make_cases()
{
  constexpr auto single = Coding_of_file::single_precision;
  constexpr auto twofold = Coding_of_file::double_precision;
  return {
      {"elements.giv", true, Coding_of_file::text, false,
       "!LDET 1.5\n!GROUP 1\n1 1 2.5\n2 1 -1\n\n2 2 3 /x\n3,3 1d0\n4 1 .5\n4 4 2\n", 4},
      {"triangle.giv", true, Coding_of_file::text, false, "2\n-1 2\n0 -1, 2\n3*0 1\n", 4},
      {"diagonal.giv", true, Coding_of_file::text, false, "2\n4\n0.5\n1\n", 4},
      {"square.grm", false, Coding_of_file::text, false, "head\n!lde 3\n2 1 0\n1 2 0.5\n0 0.5 2\n", 3},
      {"singular.grm", false, Coding_of_file::text, true, "1\n1 1\n0.5 0.5 1\n1.5 1.5 1.5 3\n", 6},
      {"dense.bgiv", true, single, false, records<float>({{4}, {1, 3}, {0.5, 0, 2}}), 3},
      {"elements.sgrm", false, single, false, records<float>({{1, 1, 4}, {2, 1, 1}, {2, 2, 3}, {3, 3, 2}}),
       3},
      {"dense.dgrm", false, twofold, true, records<double>({{4}, {1, 3}, {0.5, 0, 2}}), 3},
      {"elements.dgiv", true, twofold, false,
       records<double>({{1, 1, 4}, {2, 1, 1}, {2, 2, 3}, {3, 1, 0.5}, {3, 3, 2}}), 3},
  };
}

/// What does not hold of a failure.
std::string fault_of_messages(const ERROR_HANDLER& eh, const std::string& path, bool while_reading)
{
  std::string all;
  bool internal = false;
  for (const ERROR_MESSAGE& m : eh.messages()) {
    all += m.message.value_or("") + "\n";
    internal = internal || m.etype == Etype::internal;
  }
  if (internal) return "an internal error: " + all;
  const bool of_the_matrix = all.find("error = ") != std::string::npos ||
                             all.find("singular in row ") != std::string::npos ||
                             all.find("not finite") != std::string::npos ||
                             all.find("issue calculating the log determinant") != std::string::npos;
  if (all.find(path) == std::string::npos && (while_reading || !of_the_matrix)) return "the file is not told: " + all;
  if (!lines_are_told(eh)) return "the line is not told: " + all;
  return {};
}

}  // namespace

std::span<const MATRIX_CASE> matrix_cases()
{
  static const std::vector<MATRIX_CASE> cases = make_cases();
  return cases;
}

std::string read_matrix_bytes(const MATRIX_CASE& as, const std::string& path, std::string_view bytes, bool* good)
{
  if (good != nullptr) *good = false;
  if (!write_over(path, bytes)) return "the file can not be written";
  ERROR_HANDLER eh;
  MATRIX_INPUT in;
  MATRIX_KEYS keys;
  AINV_MTX out;
  in.origin = path;
  keys.psd = as.psd;
  out.name = "k";
  if (as.coding == Coding_of_file::text) {
    L_READ_TEXT_MATRIX(eh, path, as.inverse ? "GIV" : "GRM", as.name == "square.grm" ? 1 : 0, in);
  } else {
    L_READ_BINARY_MATRIX(eh, path, as.coding, in);
  }
  const bool while_reading = eh.terminate();
  if (!while_reading && in.groups > in.order) return {};  // told by the caller
  if (!while_reading && as.inverse) L_GETGIV_ALREADY_INVERSE(eh, keys, in, out);
  if (!while_reading && !as.inverse) L_GETGIV_INVERT(eh, keys, in, out);
  if (!eh.terminate()) AMTX_FINISH_OFF(eh, out);
  if (!eh.stack().entries.empty()) return "the routine stack is not empty";
  if (eh.terminate()) return fault_of_messages(eh, path, while_reading);
  if (good != nullptr) *good = true;
  if (!std::all_of(out.values.begin(), out.values.end(), [](double x) { return std::isfinite(x); }) ||
      !std::isfinite(out.log_determinant))
    return "the inverse is not finite";
  if (bytes == as.whole && out.order != as.order) return text("the whole file gives an order of ", out.order);
  return {};
}

}  // namespace tolvan
