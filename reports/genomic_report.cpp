// Routines: GBLUPEFFECTS, GBLUPREPORT.
#include "reports/genomic_report.h"

#include <algorithm>

#include "base/lapack.h"
#include "base/memory.h"
#include "base/text.h"
#include "relmat/entry_values.h"
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

NewColumn text_column(const char* name, const char* heading)
{
  return {.type = ColumnType::string, .name = name, .heading = heading, .format = "A", .justify = Justify::left};
}

/// L_REGISTER: a table of two columns of texts and two of numbers, filled.
void L_REGISTER(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, const char* name, const NewColumn (&columns)[4],
                const std::vector<std::string> (&texts)[2], const std::vector<double> (&numbers)[2])
{
  const Frame here{eh, __func__};
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, name);
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = store.table(id);
  for (const NewColumn& column : columns) OTT_ADD_COLUMN(eh, t, column);
  OTT_ALLOC_DATA_STORES(eh, t, std::ssize(numbers[0]));
  if (eh.terminate()) return;
  OTT_SET_COLUMN_STRING(eh, t, 1, texts[0]);
  OTT_SET_COLUMN_STRING(eh, t, 2, texts[1]);
  OTT_SET_COLUMN_REAL_WP(eh, t, 3, numbers[0]);
  OTT_SET_COLUMN_REAL_WP(eh, t, 4, numbers[1]);
}

}  // namespace

void GBLUPEFFECTS(ERROR_HANDLER& eh, const GENOMIC_MODELS& genomic, const AINV_MTXS& matrices,
                  const FACTOR_TABLE& factors, const TERM_TABLE& terms, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  if (genomic.models.empty()) return;
  std::vector<std::string> texts[2];
  std::vector<double> numbers[2];
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
    for (std::size_t j = 0; j < effects.size(); ++j) {
      texts[0].push_back(each.term->name);
      texts[1].push_back(model.data.name(static_cast<std::int64_t>(j)));
      numbers[0].push_back(effects[j]);
      numbers[1].push_back(model.weights.empty() ? 1.0 : model.weights[j]);
    }
  }
  if (numbers[0].empty()) return;
  L_REGISTER(eh, store, "TABLE_MARKER_EFFECTS",
             {text_column("LABEL", "Model_Term"), text_column("MARKER", "Marker"),
              {.name = "EFFECT", .heading = "Effect", .format = "G12.4"},
              {.name = "WEIGHT", .heading = "Weight", .format = "G12.4"}},
             texts, numbers);
}

void GBLUPREPORT(ERROR_HANDLER& eh, const GENOMIC_MODELS& genomic, const AINV_MTXS& matrices,
                 const FACTOR_TABLE& factors, const TERM_TABLE& terms, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  if (genomic.models.empty()) return;
  std::vector<std::string> texts[2];
  std::vector<double> numbers[2];
  for (const GENOMIC_TERM& each : L_GENOMIC_TERMS(eh, genomic, matrices, factors, terms)) {
    if (!each.model->keys.pev) continue;
    for (std::int64_t i = 0; i < each.genotypes(); ++i) {
      const auto e = static_cast<std::size_t>(each.term->first + i);
      texts[0].push_back(each.term->name);
      texts[1].push_back(each.inverse->labels.empty() ? text(i + 1) : each.inverse->labels[static_cast<std::size_t>(i)]);
      numbers[0].push_back(fit.solution[e]);
      numbers[1].push_back(fit.se[e] * fit.se[e]);
    }
  }
  if (numbers[0].empty()) return;
  L_REGISTER(eh, store, "TABLE_GBLUP",
             {text_column("LABEL", "Model_Term"), text_column("LVL", "Level"),
              {.name = "EFFECT", .heading = "Effect", .format = "G12.4"},
              {.name = "PEV", .heading = "PEV", .format = "G12.4"}},
             texts, numbers);
}

}  // namespace tolvan
