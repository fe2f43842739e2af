#include "pedigree/damaged_pedigree.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "base/text.h"
#include "pedigree/pedigree_file.h"
#include "pedigree/place_rows.h"
#include "support/damage.h"

namespace tolvan {
namespace {

std::vector<PEDIGREE_CASE> make_cases()
{
  return {
      {"plain", R"("type":"ft_csv","skip":1,"sort":1)", "id,s,d\nc,a,b\na,0,0\nb,,\n\"d e\",c,b # end\ne,c,d e\n", 5},
      {"blanks", R"("type":"ft_text","uppercase":1,"repeat":1)", "a * *\nb a 0\nb 0 a\nc a b rest\n// remark\nd\tc\tb\n", 4},
      {"sexes", R"("type":"ft_csv","sort":1,"xlinkr":1)", "s,0,0,1\nd,0,0,F\nx,s,d,2\ny,s,x,M\n", 4},
      {"levels", R"("type":"ft_text","fgen":0.5,"cskip":1)", "h s 0 0 2\nh d 0 0\nh x s d 1\nh y x 0 0.3\n", 4},
      {"groups", R"("type":"ft_csv","group":2,"goffset":1,"sort":1,"dom":1)", "g,,\nh,,\nx,g,h\ny,x,h\nz,x,y\n", 5},
      {"lines", R"("type":"ft_csv","inbred":1,"sort":1)", "1,0,0\n2,0,0\n4,3,1\n3,1,2\n", 4},
      {"bulls", R"("type":"ft_csv","mgs":1,"self":0.2)", "\xEF\xBB\xBF" "10,0,0\n11,10,0\n12,11,10\n13,12,10\n", 4},
  };
}

}  // namespace

std::span<const PEDIGREE_CASE> pedigree_cases()
{
  static const std::vector<PEDIGREE_CASE> cases = make_cases();
  return cases;
}

std::string read_pedigree_bytes(const PEDIGREE_CASE& as, const std::string& path, std::string_view bytes, bool* good)
{
  if (good != nullptr) *good = false;
  if (!write_over(path, bytes)) return "the file can not be written";
  JsonError error;
  const auto request = parse_json(text(R"({"pedigree_file":{"name":")", path, "\",", as.keys, "}}"), error);
  if (request == nullptr) return "the entry is no JSON";
  ERROR_HANDLER eh;
  std::vector<FIT_PEDIGREE> found;
  AIPEDA(eh, *request, found);
  if (!eh.stack().entries.empty()) return "the routine stack is not empty";
  std::string all;
  for (const ERROR_MESSAGE& m : eh.messages()) {
    all += m.message.value_or("") + "\n";
    if (m.etype == Etype::internal) return "an internal error: " + all;
  }
  if (eh.terminate()) {
    for (const std::string_view told : {std::string_view(path), std::string_view("line"), std::string_view("individual"),
                                        std::string_view("genetic group"), std::string_view("rows could not")}) {
      if (all.substr(std::min(all.size(), all.find('\n'))).find(told) != std::string::npos) return {};
    }
    return "neither file nor line nor individual is told: " + all;
  }
  if (good != nullptr) *good = true;
  const FIT_PEDIGREE& p = found.front();
  if (!parents_first(p.pedigree)) return "a parent stands behind its progeny";
  if (std::ssize(p.labels) != p.pedigree.rows()) return "the labels are not as many as the rows";
  const auto finite = [](double x) { return std::isfinite(x); };
  if (!std::isfinite(p.inverse.logdet) || !std::all_of(p.inverse.matrix.values.begin(), p.inverse.matrix.values.end(), finite))
    return "the inverse is not finite";
  if (bytes == as.whole && p.pedigree.rows() != as.rows) return text("the whole file has ", p.pedigree.rows(), " rows");
  return {};
}

}  // namespace tolvan
