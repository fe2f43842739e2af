// Inbreeding of a plain pedigree, one sire after the other.  Routine: L_INBREEDING_BY_SIRES.
#include <algorithm>
#include <cmath>

#include "base/memory.h"
#include "pedigree/inbreeding.h"

namespace tolvan {
namespace {

/// One individual that has progeny, with all that the passes of one sire touch of it.
struct NODE {
  std::int32_t parent[2] = {-1, -1};  // nodes, -1 where not known
  std::int32_t seen = -1;             // the sire in whose forward pass y was made
  std::int32_t row = 0;               // in the pedigree, from 0
  double Dv = 0.0;  // D v for the ancestors of the sire in hand, the sire itself among them; else 0
  double y = 0.0;   // a(sire, this one)
};

/// The nodes, and the progeny of each on the side by which the work goes.
struct RELATIVES {
  std::vector<NODE> nodes;            // in the order of their rows
  std::vector<std::int32_t> node_of;  // of each row, -1 without progeny
  std::vector<std::int64_t> start;    // of each node's stretch of progeny
  std::vector<std::int32_t> progeny;  // rows with two known parents
  std::vector<std::int32_t> waiting;  // work space of the passes
  std::vector<std::int32_t> listed;
};

/// L_LINK: finds the parents and groups the progeny by the parent of the side that has fewer of them.
void L_LINK(ERROR_HANDLER& eh, const PEDIGREE& p, RELATIVES& r, const std::vector<std::int32_t>*& by,
            const std::vector<std::int32_t>*& mate)
{
  const Frame here{eh, __func__};
  const std::int64_t n = p.rows();
  std::vector<char> role;  // 1 first parent, 2 second parent
  if (!assign(eh, role, n, '\0') || !assign(eh, r.node_of, n, -1)) return;
  const auto both_known = [&](std::size_t k) { return p.male[k] > p.groups && p.female[k] > p.groups; };
  const auto known = [&](std::int32_t parent) { return parent > p.groups; };
  std::int64_t sides[2] = {0, 0};
  std::int64_t nodes = 0;
  std::int64_t pairs = 0;
  for (std::size_t k = 0; k < p.id.size(); ++k) {
    if (known(p.male[k])) role[static_cast<std::size_t>(p.male[k] - 1)] |= 1;
    if (known(p.female[k])) role[static_cast<std::size_t>(p.female[k] - 1)] |= 2;
    pairs += both_known(k) ? 1 : 0;
  }
  for (const char each : role) {
    sides[0] += each & 1;
    sides[1] += each >> 1;
    nodes += each != 0 ? 1 : 0;
  }
  by = sides[0] <= sides[1] ? &p.male : &p.female;
  mate = sides[0] <= sides[1] ? &p.female : &p.male;

  if (!assign(eh, r.nodes, nodes) || !assign(eh, r.start, nodes + 1) || !assign(eh, r.progeny, pairs)) return;
  std::int32_t next = 0;
  for (std::size_t k = 0; k < p.id.size(); ++k) {
    if (role[k] == 0) continue;
    NODE& node = r.nodes[static_cast<std::size_t>(next)];
    node.row = static_cast<std::int32_t>(k);
    if (known(p.male[k])) node.parent[0] = r.node_of[static_cast<std::size_t>(p.male[k] - 1)];
    if (known(p.female[k])) node.parent[1] = r.node_of[static_cast<std::size_t>(p.female[k] - 1)];
    r.node_of[k] = next++;
  }
  const auto node_by = [&](std::size_t k) {
    return static_cast<std::size_t>(r.node_of[static_cast<std::size_t>((*by)[k] - 1)]);
  };
  for (std::size_t k = 0; k < p.id.size(); ++k) {
    if (both_known(k)) ++r.start[node_by(k) + 1];
  }
  for (std::size_t k = 1; k < r.start.size(); ++k) r.start[k] += r.start[k - 1];
  for (std::size_t k = p.id.size(); k-- > 0;) {
    if (both_known(k))
      r.progeny[static_cast<std::size_t>(--r.start[node_by(k) + 1])] = static_cast<std::int32_t>(k);
  }
  // The stretch of node k now begins at start[k + 1]: bring it to start[k].
  std::copy(r.start.begin() + 1, r.start.end(), r.start.begin());
  r.start.back() = pairs;
}

/// Puts the ancestors of a node that are not listed yet behind those that are, parents first, the node itself
/// last. listed(node) tells, list(node) marks a node and calls what has to be done.
template <class Listed, class List>
void in_order_of_descent(RELATIVES& r, std::int32_t from, Listed&& listed, List&& list)
{
  if (listed(from)) return;
  r.waiting.push_back(from);
  while (!r.waiting.empty()) {
    const std::int32_t at = r.waiting.back();
    const NODE& node = r.nodes[static_cast<std::size_t>(at)];
    if (listed(at)) {
      r.waiting.pop_back();
    } else if (node.parent[1] >= 0 && !listed(node.parent[1])) {
      r.waiting.push_back(node.parent[1]);
    } else if (node.parent[0] >= 0 && !listed(node.parent[0])) {
      r.waiting.push_back(node.parent[0]);
    } else {
      list(at);
      r.waiting.pop_back();
    }
  }
}

double within_family(const PEDIGREE& p, const BREEDING_RULES& rules, const std::vector<double>& F,
                     std::size_t k)
{
  const auto f = [&](std::int32_t parent) {
    return parent > p.groups ? F[static_cast<std::size_t>(parent - 1)] : -1.0;
  };
  if (p.male[k] <= p.groups && p.female[k] <= p.groups) return 1.0 + rules.base_inbreeding;
  return std::max(0.5 - (f(p.male[k]) + f(p.female[k])) / 4.0, least_variance);
}

}  // namespace

void L_INBREEDING_BY_SIRES(ERROR_HANDLER& eh, const PEDIGREE& pedigree, const BREEDING_RULES& rules,
                           INBREEDING& out)
{
  const Frame here{eh, __func__};
  const PEDIGREE& p = pedigree;
  RELATIVES r;
  const std::vector<std::int32_t>* by = nullptr;
  const std::vector<std::int32_t>* mate = nullptr;
  L_LINK(eh, p, r, by, mate);
  if (eh.terminate() || !assign(eh, out.F, p.rows())) return;
  for (std::size_t k = static_cast<std::size_t>(p.groups); k < p.id.size(); ++k) {
    if (p.male[k] <= p.groups && p.female[k] <= p.groups)
      out.F[k] = std::min(rules.base_inbreeding, highest_inbreeding);
  }

  // A sire's ancestors and their parents are older than it: their F stands when its turn comes.
  const bool room = attempt([&] {
    for (std::int32_t sire = 0; sire < static_cast<std::int32_t>(r.nodes.size()); ++sire) {
      const auto begin = static_cast<std::size_t>(r.start[static_cast<std::size_t>(sire)]);
      const auto end = static_cast<std::size_t>(r.start[static_cast<std::size_t>(sire) + 1]);
      if (begin == end) continue;

      // v = T' e_s: from the sire up, v_parent += v / 2.  A listed ancestor holds a Dv that is not 0.
      r.listed.clear();
      in_order_of_descent(
          r, sire, [&](std::int32_t at) { return r.nodes[static_cast<std::size_t>(at)].Dv != 0.0; },
          [&](std::int32_t at) {
            r.nodes[static_cast<std::size_t>(at)].Dv = -1.0;
            r.listed.push_back(at);
          });
      for (const std::int32_t at : r.listed) r.nodes[static_cast<std::size_t>(at)].Dv = 0.0;
      r.nodes[static_cast<std::size_t>(sire)].Dv = 1.0;
      for (auto at = r.listed.rbegin(); at != r.listed.rend(); ++at) {
        NODE& node = r.nodes[static_cast<std::size_t>(*at)];
        const double v = node.Dv;
        for (const std::int32_t parent : node.parent) {
          if (parent >= 0) r.nodes[static_cast<std::size_t>(parent)].Dv += 0.5 * v;
        }
        node.Dv = v * within_family(p, rules, out.F, static_cast<std::size_t>(node.row));
      }

      // y = T (D v): from the oldest ancestor of a mate down to it, y = (y_first + y_second) / 2 + D v.
      for (std::size_t each = begin; each < end; ++each) {
        const auto child = static_cast<std::size_t>(r.progeny[each]);
        if (p.male[child] == p.female[child]) {
          out.F[child] =
              std::min((1.0 + out.F[static_cast<std::size_t>(p.male[child] - 1)]) / 2.0, highest_inbreeding);
          continue;
        }
        const std::int32_t other = r.node_of[static_cast<std::size_t>((*mate)[child] - 1)];
        in_order_of_descent(
            r, other, [&](std::int32_t at) { return r.nodes[static_cast<std::size_t>(at)].seen == sire; },
            [&](std::int32_t at) {
              NODE& node = r.nodes[static_cast<std::size_t>(at)];
              node.seen = sire;
              node.y = node.Dv;
              for (const std::int32_t parent : node.parent) {
                if (parent >= 0) node.y += 0.5 * r.nodes[static_cast<std::size_t>(parent)].y;
              }
            });
        out.F[child] = std::min(0.5 * r.nodes[static_cast<std::size_t>(other)].y, highest_inbreeding);
      }
      for (const std::int32_t at : r.listed) r.nodes[static_cast<std::size_t>(at)].Dv = 0.0;
    }
  });
  if (!room) return eh.out_of_memory();

  std::vector<NODE>().swap(r.nodes);
  if (!assign(eh, out.D, p.rows())) return;
  for (std::size_t k = static_cast<std::size_t>(p.groups); k < p.id.size(); ++k)
    out.D[k] = within_family(p, rules, out.F, k);
}

}  // namespace tolvan
