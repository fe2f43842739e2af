// Routines: GBLUPEFFECTS, GBLUPREPORT.
#include "reports/genomic_report.h"

#include <string>
#include <utility>
#include <vector>

#include "api/fill_table.h"
#include "base/lapack.h"
#include "base/memory.h"
#include "base/text.h"
#include "data/entry_values.h"
#include "relmat/marker_effects.h"

namespace tolvan {
namespace {

/// A term that takes the matrix of markers.
struct GENOMIC_TERM {
  const GENOMIC_MODEL* model = nullptr;
  const AINV_MTX* inverse = nullptr;
  const TERM_ROW* term = nullptr;
  std::int64_t genotypes() const { return model->data.genotypes; }
};

/// L_GENOMIC_TERMS: the terms of genotypes alone with a matrix of markers that is looked at again.
std::vector<GENOMIC_TERM> L_GENOMIC_TERMS(ERROR_HANDLER& eh, const GENOMIC_MODELS& genomic, const AINV_MTXS& matrices,
                                          const FACTOR_TABLE& factors, const TERM_TABLE& terms)
{
  const Frame here{eh, __func__};
  std::vector<GENOMIC_TERM> found;
  for (const TERM_ROW& term : terms.rows) {
    if (!has_equations(term) || term.dropped || term.code <= 0) continue;
    const auto [from, to] = term.components();
    for (std::int64_t f = from; f <= to && f <= factors.count(); ++f) {
      const FACTOR_ROW& factor = factors.row(f);
      const GENOMIC_MODEL* model = factor.matrix.empty() || factor.structure == "ide" ? nullptr : genomic.find(factor.matrix);
      if (model == nullptr) continue;
      if (from == to && term.equations >= model->data.genotypes) {
        found.push_back({model, matrices.find(factor.matrix), &term});
      } else {
        eh.EH_ADD_MESSAGE({.text = text("effects of markers are worked out for terms of genotypes alone, not for ", term.name),
                           .etype = Etype::warning,
                           .unique = true});
      }
    }
  }
  return found;
}

/// L_ALPHA: G^-1 times the effects of the genotypes.  Rows that bind others are left out: what they stand for is 0.
void L_ALPHA(ERROR_HANDLER& eh, const GENOMIC_TERM& of, const FIT_STATE& fit, std::vector<double>& alpha)
{
  const Frame here{eh, __func__};
  const std::int64_t n = of.genotypes();
  if (!assign(eh, alpha, n)) return;
  dgemv('N', n, n, 1.0, of.inverse->values.data(), of.inverse->order, fit.solution.data() + of.term->first, 1, 0.0,
        alpha.data(), 1);
}

/// A table of two columns of texts, the first the term, and two of numbers, while its rows are gathered.
struct GATHERED {
  std::vector<std::string> terms, labels;
  std::vector<double> first, second;

  void add(const std::string& term, std::string label, double x, double y)
  {
    terms.push_back(term);
    labels.push_back(std::move(label));
    first.push_back(x);
    second.push_back(y);
  }
  /// Hands the rows over, if there are any, under the names and headings of the last three columns.
  void hand_over(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, const char* name, const char* const (&columns)[3][2])
  {
    if (first.empty()) return;
    const auto of_texts = [](const char* column, const char* heading) {
      return NewColumn{.type = ColumnType::string, .name = column, .heading = heading, .format = "A", .justify = Justify::left};
    };
    const auto of_numbers = [](const char* column, const char* heading) {
      return NewColumn{.name = column, .heading = heading, .format = "G12.4"};
    };
    OUTPUT_TABLE& t = register_table(eh, store, name,
                                     {of_texts("LABEL", "Model_Term"), of_texts(columns[0][0], columns[0][1]),
                                      of_numbers(columns[1][0], columns[1][1]), of_numbers(columns[2][0], columns[2][1])});
    take(t, t.string_col, 0, terms);
    take(t, t.string_col, 1, labels);
    take(t, t.real_col, 0, first);
    take(t, t.real_col, 1, second);
  }
};

}  // namespace

void GBLUPEFFECTS(ERROR_HANDLER& eh, const GENOMIC_MODELS& genomic, const AINV_MTXS& matrices,
                  const FACTOR_TABLE& factors, const TERM_TABLE& terms, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  if (genomic.models.empty()) return;
  GATHERED rows;
  for (const GENOMIC_TERM& each : L_GENOMIC_TERMS(eh, genomic, matrices, factors, terms)) {
    const GENOMIC_MODEL& model = *each.model;
    if (!model.keys.effects) continue;
    std::vector<double> alpha, effects;
    L_ALPHA(eh, each, fit, alpha);
    if (eh.terminate()) return;
    L_MARKER_EFFECTS(eh, model.keys, model.data, model.weights, model.summary.divisor, alpha, effects);
    if (eh.terminate()) return;
    L_RESWRITE(eh, without_extension(model.data.origin), model.data, effects, model.weights);
    if (eh.terminate()) return;
    for (std::size_t j = 0; j < effects.size(); ++j)
      rows.add(each.term->name, model.data.name(static_cast<std::int64_t>(j)), effects[j],
               model.weights.empty() ? 1.0 : model.weights[j]);
  }
  rows.hand_over(eh, store, "TABLE_MARKER_EFFECTS", {{"MARKER", "Marker"}, {"EFFECT", "Effect"}, {"WEIGHT", "Weight"}});
}

void GBLUPREPORT(ERROR_HANDLER& eh, const GENOMIC_MODELS& genomic, const AINV_MTXS& matrices,
                 const FACTOR_TABLE& factors, const TERM_TABLE& terms, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  if (genomic.models.empty()) return;
  GATHERED rows;
  for (const GENOMIC_TERM& each : L_GENOMIC_TERMS(eh, genomic, matrices, factors, terms)) {
    if (!each.model->keys.pev) continue;
    const std::vector<std::string>& labels = each.inverse->labels;
    for (std::int64_t i = 0; i < each.genotypes(); ++i) {
      const auto e = static_cast<std::size_t>(each.term->first + i);
      rows.add(each.term->name, labels.empty() ? text(i + 1) : labels[static_cast<std::size_t>(i)], fit.solution[e],
               fit.se[e] * fit.se[e]);
    }
  }
  rows.hand_over(eh, store, "TABLE_GBLUP", {{"LVL", "Level"}, {"EFFECT", "Effect"}, {"PEV", "PEV"}});
}

}  // namespace tolvan
