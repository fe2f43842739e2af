#include "relmat/damaged_markers.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "base/text.h"
#include "relmat/genomic_matrix.h"
#include "support/damage.h"

namespace tolvan {
namespace {

const std::string fam = "f1 a 0 0 1 -9\nf1 b 0 0 2 -9\nf2 c a b 1 1.5\nf2 d a b 2 NA\nf3 e 0 0 0 -9\n";
const std::string bim = "1 m1 0 101 A G\n1 m2 0 102 C T\n2\tm3\t0.5\t7\tG\tA\n";
/// Two records of three single numbers.
std::string records()
{
  std::string out;
  const auto add = [&out](const auto& x) { out.append(reinterpret_cast<const char*>(&x), sizeof x); };
  for (const auto& row : {std::array{0.0F, 1.5F, 2.0F}, std::array{1.0F, -3.0F, 0.0F}}) {
    const std::int32_t bytes = 12;
    add(bytes);
    for (const float x : row) add(x);
    add(bytes);
  }
  return out;
}

const std::string bed("\x6c\x1b\x01\xe4\x02\x0b\x03\x7a\x01", 9);

std::vector<MARKER_CASE> make_cases()
{
  return {
      {"counts.mkr", R"("markers":4)", "a 0 1 2 NA\nb 1 1 0 2\n\"c d\" 2 0 9 1\n// remark\ne,0,,1,-1\nf 0.5 1 2 1\n", 5, 4},
      {"names.grr", R"("cskip":1)", "// made up\nid sex x1 x2 x3\na 1 0.5 -1e2 3\nb 2 * 4 5.25\n\nc 1 +1 .5 NA more\n", 3, 3},
      {"plain.mat", R"("nokey":true,"markers":3,"skip":1)", "head\n0 1 2\n2,1,0\n1 1 1\n0 0 1\n", 4, 3},
      {"turned.mkr", R"("snpname":"snp","cskip":1)", "chr snp g1 g2 g3 g4\n1 a 0 1 2 1\n1 b 2 2 0 NA\n2 c 1 0 0 0\n", 4, 3},
      {"long.mkr", R"("snpname":"snp","gidname":"id")", "id snp count\na x 0\na y 1\nb x 2\nb y NA\nc y 2\n", 3, 2},
      {"numbers.bgrm", R"("markers":3)", records(), 2, 3},
      {"geno.bed", "", bed, 5, 3},
      {"geno.bim", "", bim, 5, 3},
      {"geno.fam", "", fam, 5, 3},
  };
}

/// The files of a case: what is no part of it is whole.
std::string write_files(const MARKER_CASE& as, const std::string& folder, std::string_view bytes)
{
  const std::string path = folder + "/" + as.name;
  if (!as.name.starts_with("geno.")) return write_over(path, bytes) ? path : std::string();
  for (const char* part : {"geno.bed", "geno.bim", "geno.fam"}) {
    if (as.name != part && !write_over(folder + "/" + part, marker_case(part).whole)) return {};
  }
  return write_over(path, bytes) ? folder + "/geno.bed" : std::string();
}

/// What does not hold of a failure.
std::string fault_of_messages(const ERROR_HANDLER& eh, const std::string& folder)
{
  std::string all;
  for (const ERROR_MESSAGE& m : eh.messages()) all += m.message.value_or("") + "\n";
  const bool about_the_whole = all.find("failed to parse GRR Label Line: ") != std::string::npos ||
                               all.find("problem parsing \"//") != std::string::npos;
  if (!about_the_whole && all.find(folder) == std::string::npos) return "the file is not told: " + all;
  if (!lines_are_told(eh)) return "the line is not told: " + all;
  return {};
}

}  // namespace

std::span<const MARKER_CASE> marker_cases()
{
  static const std::vector<MARKER_CASE> cases = make_cases();
  return cases;
}

const MARKER_CASE& marker_case(std::string_view name)
{
  const auto cases = marker_cases();
  return *std::find_if(cases.begin(), cases.end(), [&](const MARKER_CASE& each) { return each.name == name; });
}

std::string read_marker_bytes(const MARKER_CASE& as, const std::string& folder, std::string_view bytes, bool* good)
{
  if (good != nullptr) *good = false;
  const std::string path = write_files(as, folder, bytes);
  if (path.empty()) return "the files can not be written";
  JsonError error;
  const auto entry = parse_json(text("{\"name\":\"", path, "\"", as.keys.empty() ? "" : ",", as.keys, "}"), error);
  if (entry == nullptr) return "the entry is no JSON";
  ERROR_HANDLER eh;
  GENOMIC_MODEL model;
  MATRIX_INPUT matrix;
  GET_GENOMIC_MATRIX(eh, *entry, *entry, model, matrix);
  if (!eh.stack().entries.empty()) return "the routine stack is not empty";
  if (eh.terminate()) return fault_of_messages(eh, folder);
  if (good != nullptr) *good = true;
  const MARKER_DATA& data = model.data;
  if (matrix.order != data.genotypes || std::ssize(matrix.values) != matrix.order * matrix.order) return "the order is wrong";
  if (!data.labels.empty() && std::ssize(data.labels) != data.genotypes) return "the labels are not as many as the rows";
  if (!data.names.empty() && std::ssize(data.names) != data.regressors) return "the names are not as many as the columns";
  const bool finite = std::all_of(matrix.values.begin(), matrix.values.end(), [](double x) { return std::isfinite(x); });
  if (!finite) return "the matrix is not finite";
  if (bytes == as.whole && (data.genotypes != as.genotypes || data.regressors != as.regressors))
    return text("the whole file has ", data.genotypes, " genotypes and ", data.regressors, " regressors");
  return {};
}

}  // namespace tolvan
