// The inverse of a pedigree in a fit and what it looks like: AIPEDM, L_PEDSTRUCT.
#include <algorithm>

#include "base/memory.h"
#include "base/text.h"
#include "pedigree/pedigree_file.h"

namespace tolvan {

void AIPEDM(ERROR_HANDLER& eh, const PEDIGREE_KEYS& keys, const PEDIGREE& pedigree, AINVERSE& out)
{
  const Frame here{eh, __func__};
  if (keys.groups > 0 && keys.group_offset > 0.0) {
    eh.note(
        "GRV, the ratio of Groups variance (Vg) to Additive variance (Va) being the inverse of the !Goffset "
        "argument");
    eh.note(
        "a large value may bias the Va down so start with a value of 1 but test other values (say 10, 0.1) "
        "to maximize the "
        "REML likelihood");
  }
  const std::int64_t last = K4MAIG(eh, pedigree, breeding_rules(keys), out);
  if (last == pedigree.rows()) return;
  if (keys.sex_linked) {
    eh.error("unable to form S-Inverse from predigree");  // sic
  } else if (keys.groups > 0) {
    eh.error("Unable to form A-inverse from pedigree, maybe some parents are not assigned to GROUPS");
  }
  eh.error("pedigree is conflicted or out of order");
  eh.error(text("error processing pedigree for individual ", last + 1, " of ", pedigree.rows()));
  eh.continuation("try verifying the pedigree file");
}

void L_PEDSTRUCT(ERROR_HANDLER& eh, const PEDIGREE& pedigree)
{
  const Frame here{eh, __func__};
  eh.note(text(pedigree.rows() - pedigree.groups, " identities in the pedigree,"));
  // The length of the line of first parents, and of second ones, behind each individual that has one.
  std::vector<std::int32_t> generations;
  const std::pair<const char*, const std::vector<std::int32_t>*> sides[] = {{"Sire", &pedigree.male},
                                                                            {"Dam", &pedigree.female}};
  for (const auto& [side, parents] : sides) {
    if (!assign(eh, generations, pedigree.rows())) return;
    std::int32_t low = 0;
    std::int32_t high = 0;
    for (std::size_t k = static_cast<std::size_t>(pedigree.groups); k < parents->size(); ++k) {
      const std::int32_t parent = (*parents)[k];
      if (parent <= pedigree.groups) continue;
      const std::int32_t n = generations[static_cast<std::size_t>(parent - 1)] + 1;
      generations[k] = n;
      low = high == 0 ? n : std::min(low, n);
      high = std::max(high, n);
    }
    eh.continuation(text("generations on ", side, " side range ", low, " to ", high));
  }
}

}  // namespace tolvan
